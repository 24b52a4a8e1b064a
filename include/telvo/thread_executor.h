// The default Executor: one library-owned thread that runs posted work in
// submission order and fires repeating timers, waiting on a condition
// variable until the next item or timer is due.
//
// post() is cheap on the caller's thread: it appends to a vector under a
// briefly held mutex and only signals the worker when the worker is actually
// waiting, so posting to a busy worker makes no system call.
//
// Thread safety: every member function may be called from any thread.
#pragma once

#include "telvo/export.h"

#include <functional>
#include <memory>
#include <string>

#include "telvo/executor.h"

namespace telvo {

class TELVO_API ThreadExecutor : public Executor {
 public:
  struct Options {
    std::string name = "telvo-main";  // thread name, also used in log lines
    // Run at the lowest scheduling priority (nice 19) where permitted; a
    // refusal is ignored and the thread runs at normal priority.
    bool lowPriority = false;
  };

  // How long the destructor waits for the worker to finish.
  static constexpr double kDefaultShutdownDeadline = 2.0;  // seconds

  ThreadExecutor();
  explicit ThreadExecutor(Options options);
  // Shuts down with kDefaultShutdownDeadline.
  ~ThreadExecutor() override;

  ThreadExecutor(const ThreadExecutor&) = delete;
  ThreadExecutor& operator=(const ThreadExecutor&) = delete;

  // After shutdown has begun, work is dropped (one log line) and timers are
  // returned already invalid.
  void post(std::function<void()> work) override;
  std::shared_ptr<Timer> scheduleRepeating(double interval, std::function<void()> fire) override;
  bool isCurrent() const override;

  // Stops the worker: work posted before the call still runs, timers stop
  // firing, then the thread ends. Waits at most `deadlineSeconds` for that;
  // past the deadline the thread is detached to finish on its own, so the
  // caller (e.g. process exit) never hangs. Returns true when the thread has
  // ended. Idempotent. Called on the worker itself, it does not wait.
  bool shutdown(double deadlineSeconds = kDefaultShutdownDeadline);

 private:
  struct Core;
  std::shared_ptr<Core> core_;
};

}  // namespace telvo
