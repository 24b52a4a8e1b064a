#include <mutex>

#include "platform/system_info.h"
#include "telvo/device.h"
#include "telvo/user_defaults.h"

namespace telvo {
namespace {
constexpr const char* kIdentifierKey = "telvoDeviceIdentifier";
}  // namespace

struct TELVO_LOCAL SystemDevice::State {
  std::shared_ptr<UserDefaults> defaults;
  const std::string systemVersion = system_info::systemVersion();
  const std::string machine = system_info::machine();

  mutable std::mutex mutex;  // guards everything below
  std::optional<std::string> versionOverride, machineOverride, modelOverride, identifierOverride;
  mutable std::optional<std::string> identifier;  // once read or made, fixed for this object
};

SystemDevice::SystemDevice() : SystemDevice(UserDefaults::standardUserDefaults()) {}

SystemDevice::SystemDevice(std::shared_ptr<UserDefaults> defaults)
    : state_(std::make_unique<State>()) {
  state_->defaults = defaults ? std::move(defaults) : std::make_shared<MemoryUserDefaults>();
}

SystemDevice::~SystemDevice() = default;

std::string SystemDevice::systemVersion() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->versionOverride.value_or(state_->systemVersion);
}

std::string SystemDevice::machine() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->machineOverride.value_or(state_->machine);
}

std::string SystemDevice::model() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->modelOverride.value_or("Linux");
}

std::string SystemDevice::identifierForVendor() const {
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (state_->identifierOverride) return *state_->identifierOverride;
    if (state_->identifier) return *state_->identifier;
  }
  // The store is called without our lock held; if two threads get here at
  // once, the first to come back wins and only the winner writes.
  const std::shared_ptr<UserDefaults>& defaults = state_->defaults;
  std::string candidate;
  bool made = false;
  if (auto stored = defaults->objectForKey(kIdentifierKey);
      stored && stored->is_string() && system_info::isUUIDText(stored->get<std::string>())) {
    candidate = stored->get<std::string>();
  } else {
    candidate = system_info::makeUUID();
    made = true;
  }
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (state_->identifier) return *state_->identifier;
    state_->identifier = candidate;
  }
  if (made) {
    defaults->setObject(candidate, kIdentifierKey);
    defaults->synchronize();
  }
  return candidate;
}

void SystemDevice::setSystemVersion(std::optional<std::string> value) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->versionOverride = std::move(value);
}

void SystemDevice::setMachine(std::optional<std::string> value) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->machineOverride = std::move(value);
}

void SystemDevice::setModel(std::optional<std::string> value) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->modelOverride = std::move(value);
}

void SystemDevice::setIdentifierForVendor(std::optional<std::string> value) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->identifierOverride = std::move(value);
}

}  // namespace telvo
