#include "telvo/user_defaults.h"

#include <cstdlib>
#include <mutex>
#include <utility>

namespace telvo {
namespace {

struct DefaultsHolder {
  std::mutex mutex;
  std::shared_ptr<UserDefaults> defaults;
};

DefaultsHolder& holder() {
  static DefaultsHolder* h = new DefaultsHolder;  // leaked: usable during exit
  return *h;
}

// The process-wide store is never destroyed (its holder is leaked), so changes
// not yet synchronised are written when the process exits normally.
void synchronizeAtExit() {
  std::shared_ptr<UserDefaults> defaults;
  {
    std::lock_guard<std::mutex> lock(holder().mutex);
    defaults = holder().defaults;
  }
  if (defaults) defaults->synchronize();
}

}  // namespace

std::shared_ptr<UserDefaults> UserDefaults::standardUserDefaults() {
  static std::once_flag registered;
  std::call_once(registered, [] { std::atexit(synchronizeAtExit); });
  std::lock_guard<std::mutex> lock(holder().mutex);
  if (!holder().defaults) {
    holder().defaults = std::make_shared<FileUserDefaults>(FileUserDefaults::defaultPath());
  }
  return holder().defaults;
}

void UserDefaults::setStandardUserDefaults(std::shared_ptr<UserDefaults> defaults) {
  std::shared_ptr<UserDefaults> previous;
  {
    std::lock_guard<std::mutex> lock(holder().mutex);
    previous = std::exchange(holder().defaults, std::move(defaults));
  }
  // Released outside the lock: a FileUserDefaults writes its pending changes
  // when destroyed.
}

}  // namespace telvo
