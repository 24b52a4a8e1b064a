#include <map>
#include <mutex>

#include "telvo/user_defaults.h"

namespace telvo {

struct TELVO_LOCAL MemoryUserDefaults::State {
  mutable std::mutex mutex;
  std::map<std::string, Json> values;
};

MemoryUserDefaults::MemoryUserDefaults() : state_(std::make_unique<State>()) {}
MemoryUserDefaults::~MemoryUserDefaults() = default;

std::optional<Json> MemoryUserDefaults::objectForKey(const std::string& key) const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  auto it = state_->values.find(key);
  if (it == state_->values.end()) return std::nullopt;
  return it->second;
}

void MemoryUserDefaults::setObject(const Json& value, const std::string& key) {
  Json copy = value;  // copied before locking: a large value does not hold others up
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->values[key] = std::move(copy);
}

void MemoryUserDefaults::removeObjectForKey(const std::string& key) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->values.erase(key);
}

bool MemoryUserDefaults::synchronize() { return true; }

}  // namespace telvo
