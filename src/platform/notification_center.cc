#include "telvo/notification_center.h"

#include <atomic>
#include <exception>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/process_default.h"
#include "telvo/log.h"

namespace telvo {
namespace {

struct Registration {
  const void* observer;
  std::shared_ptr<const NotificationCenter::Handler> handler;
  // Cleared on removal, so a post already holding this registration skips it
  // when the removal happened earlier in the same post.
  std::shared_ptr<std::atomic<bool>> active;
};

platform::ProcessDefault<NotificationCenter>& holder() {
  static auto& h = platform::leakedDefault<NotificationCenter>(
      []() -> std::shared_ptr<NotificationCenter> { return std::make_shared<NotificationCenter>(); });
  return h;
}

}  // namespace

struct TELVO_LOCAL NotificationCenter::State {
  std::mutex mutex;  // guards `registrations`
  std::unordered_map<std::string, std::vector<Registration>> registrations;
};

std::shared_ptr<NotificationCenter> NotificationCenter::defaultCenter() { return holder().get(); }

void NotificationCenter::setDefaultCenter(std::shared_ptr<NotificationCenter> center) {
  holder().set(std::move(center));
}

NotificationCenter::NotificationCenter() : state_(std::make_shared<State>()) {}

NotificationCenter::~NotificationCenter() = default;

void NotificationCenter::addObserver(const void* observer, const std::string& name,
                                     Handler handler) {
  if (!handler) return;
  Registration registration{observer, std::make_shared<const Handler>(std::move(handler)),
                            std::make_shared<std::atomic<bool>>(true)};
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->registrations[name].push_back(std::move(registration));
}

void NotificationCenter::removeObserver(const void* observer) {
  std::vector<Registration> removed;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    for (auto it = state_->registrations.begin(); it != state_->registrations.end();) {
      auto& list = it->second;
      for (auto entry = list.begin(); entry != list.end();) {
        if (entry->observer == observer) {
          entry->active->store(false, std::memory_order_release);
          removed.push_back(std::move(*entry));
          entry = list.erase(entry);
        } else {
          ++entry;
        }
      }
      it = list.empty() ? state_->registrations.erase(it) : std::next(it);
    }
  }
  // Handlers (and their captures) are released here, without the lock.
}

void NotificationCenter::postNotificationName(const std::string& name, const Json& object) {
  std::vector<Registration> targets;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto it = state_->registrations.find(name);
    if (it == state_->registrations.end()) return;
    targets = it->second;
  }
  const Notification notification{name, object};
  for (const auto& target : targets) {
    if (!target.active->load(std::memory_order_acquire)) continue;
    // A throwing handler must not stop the others, nor escape a library thread.
    try {
      (*target.handler)(notification);
    } catch (const std::exception& e) {
      log("telvo: an observer of " + name + " threw an exception: " + e.what());
    } catch (...) {
      log("telvo: an observer of " + name + " threw an exception");
    }
  }
}

}  // namespace telvo
