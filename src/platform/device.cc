#include "telvo/device.h"

#include <mutex>
#include <utility>

namespace telvo {
namespace {

struct DeviceHolder {
  std::mutex mutex;
  std::shared_ptr<Device> device;
};

DeviceHolder& holder() {
  static DeviceHolder* h = new DeviceHolder;  // leaked: usable during exit
  return *h;
}

}  // namespace

std::shared_ptr<Device> Device::currentDevice() {
  std::lock_guard<std::mutex> lock(holder().mutex);
  if (!holder().device) holder().device = std::make_shared<SystemDevice>();
  return holder().device;
}

void Device::setCurrentDevice(std::shared_ptr<Device> device) {
  std::shared_ptr<Device> previous;
  std::lock_guard<std::mutex> lock(holder().mutex);
  previous = std::exchange(holder().device, std::move(device));
}

}  // namespace telvo
