// Serial executors with timers: the library's main queue and background queue.
//
// The main queue runs posted work one item at a time in submission order and
// also fires repeating timers (the library's "main run loop"): event capture,
// every change of the event queue, the flush and the batch timer run there.
// The background queue runs error reports at low priority.
//
// Both are process-wide defaults that a host (or a test) may replace before it
// creates clients: a host with its own event loop supplies an adapter that
// implements Executor on top of it.
//
// Thread safety: every member function may be called from any thread.
#pragma once

#include "telvo/export.h"

#include <functional>
#include <memory>

namespace telvo {

// A repeating timer created by Executor::scheduleRepeating.
class TELVO_API Timer {
 public:
  virtual ~Timer() = default;
  // Stops all future firings. Idempotent; callable from any thread, including
  // from inside the timer's own callback. A firing that has already started
  // runs to its end.
  virtual void invalidate() = 0;
  virtual bool isValid() const = 0;
  // The effective interval in seconds (after the floor below).
  virtual double timeInterval() const = 0;
};

// Timers never fire more often than this: an interval below it (0 or negative
// included) is raised to it, so a bad setting cannot make a timer spin.
inline constexpr double kMinimumTimerInterval = 0.1;  // seconds

class TELVO_API Executor {
 public:
  virtual ~Executor() = default;

  // Runs `work` later, after everything posted before it. Never runs it inline.
  // Cheap on the caller's thread. Work must not throw; an exception that
  // escapes is caught, logged and dropped.
  virtual void post(std::function<void()> work) = 0;

  // Fires `fire` on this executor every `interval` seconds (floored at
  // kMinimumTimerInterval), first after one interval, until invalidated.
  // The executor keeps the timer alive while it is valid.
  virtual std::shared_ptr<Timer> scheduleRepeating(double interval, std::function<void()> fire) = 0;

  // True when called from work or a timer running on this executor. An
  // adapter that cannot tell answers false (the default); code that must
  // not wait for the executor on its own thread then waits out its time-out.
  virtual bool isCurrent() const { return false; }
};

// The process-wide main queue. Default: one library-owned thread (created on
// first use, stopped at process exit with a deadline).
TELVO_API std::shared_ptr<Executor> mainQueue();
TELVO_API void setMainQueue(std::shared_ptr<Executor> queue);

// The process-wide background queue for error reports. Default: one
// low-priority library-owned thread.
TELVO_API std::shared_ptr<Executor> backgroundQueue();
TELVO_API void setBackgroundQueue(std::shared_ptr<Executor> queue);

// Waits until everything posted to `queue` before the call has run, at most
// `timeout` seconds; true when it has. Never call it on `queue` itself (it
// would wait out its time-out).
TELVO_API bool drain(Executor& queue, double timeout);

}  // namespace telvo
