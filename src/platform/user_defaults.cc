#include "telvo/user_defaults.h"

#include <cstdlib>
#include <mutex>

#include "platform/process_default.h"

namespace telvo {
namespace {

platform::ProcessDefault<UserDefaults>& holder() {
  static auto& h = platform::leakedDefault<UserDefaults>([]() -> std::shared_ptr<UserDefaults> {
    return std::make_shared<FileUserDefaults>(FileUserDefaults::defaultPath());
  });
  return h;
}

// The process-wide store is never destroyed (its holder is leaked), so changes
// not yet synchronised are written when the process exits normally.
void synchronizeAtExit() {
  if (auto defaults = holder().peek()) defaults->synchronize();
}

}  // namespace

std::shared_ptr<UserDefaults> UserDefaults::standardUserDefaults() {
  static std::once_flag registered;
  std::call_once(registered, [] { std::atexit(synchronizeAtExit); });
  return holder().get();
}

// The previous store is released outside the lock: a FileUserDefaults writes
// its pending changes when destroyed.
void UserDefaults::setStandardUserDefaults(std::shared_ptr<UserDefaults> defaults) {
  holder().set(std::move(defaults));
}

}  // namespace telvo
