// A process-wide notification centre: observers keyed by notification name.
//
// Handlers run on the posting thread, in registration order, with no lock
// held, so a handler may add or remove observers (its own included) and post.
// An observer added during a post is first called by the next post; one
// removed during a post (on the posting thread) is not called later in it.
// An exception thrown by a handler is logged and the remaining handlers run.
// Thread safety: every member function may be called from any thread.
#pragma once

#include "telvo/export.h"

#include <functional>
#include <memory>
#include <string>

#include "telvo/types.h"

namespace telvo {

// The application notifications. The host posts them itself (on any thread;
// the platform posts them on the main thread): entering the background and
// terminating stop a client's batch timer, returning to the foreground starts
// it again.
inline constexpr const char* UIApplicationDidEnterBackgroundNotification =
    "UIApplicationDidEnterBackgroundNotification";
inline constexpr const char* UIApplicationWillTerminateNotification =
    "UIApplicationWillTerminateNotification";
inline constexpr const char* UIApplicationWillEnterForegroundNotification =
    "UIApplicationWillEnterForegroundNotification";

// Posted by a client when the hello answer gives it a session id; the object
// is the session id.
inline constexpr const char* TelvoSessionIDReceivedNotification = "TelvoSessionIDReceived";

struct TELVO_API Notification {
  std::string name;
  Json object;  // null when the poster gave none
};

class TELVO_API NotificationCenter {
 public:
  using Handler = std::function<void(const Notification&)>;

  // The process-wide centre (replaceable before clients are created).
  static std::shared_ptr<NotificationCenter> defaultCenter();
  static void setDefaultCenter(std::shared_ptr<NotificationCenter> center);

  NotificationCenter();
  ~NotificationCenter();

  // Calls `handler` for every later post of `name`. `observer` only identifies
  // the registration for removal; it is never dereferenced.
  void addObserver(const void* observer, const std::string& name, Handler handler);

  // Removes all of `observer`'s registrations at once. Posts that start after
  // it returns never call them; a post already under way on another thread
  // may still be calling one, so handlers must not assume their observer is
  // alive (clients capture themselves weakly).
  void removeObserver(const void* observer);

  void postNotificationName(const std::string& name, const Json& object = nullptr);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace telvo
