#include "telvo/device.h"

#include "platform/process_default.h"

namespace telvo {
namespace {

platform::ProcessDefault<Device>& holder() {
  static auto& h = platform::leakedDefault<Device>([]() -> std::shared_ptr<Device> {
    return std::make_shared<SystemDevice>();
  });
  return h;
}

}  // namespace

std::shared_ptr<Device> Device::currentDevice() { return holder().get(); }

void Device::setCurrentDevice(std::shared_ptr<Device> device) { holder().set(std::move(device)); }

}  // namespace telvo
