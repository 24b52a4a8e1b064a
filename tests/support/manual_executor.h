// A test double for Executor: nothing runs until the test says so, and timers
// run in virtual time.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include "telvo/executor.h"

namespace telvo {

class ManualExecutor : public Executor, public std::enable_shared_from_this<ManualExecutor> {
 public:
  ManualExecutor();
  ~ManualExecutor() override;

  void post(std::function<void()> work) override;
  std::shared_ptr<Timer> scheduleRepeating(double interval, std::function<void()> fire) override;

  // Runs posted work, including work posted while running, until none is
  // left. Returns how many items ran.
  std::size_t runPending();

  // Runs pending work, then moves virtual time forward by `seconds`, firing
  // each due timer in due-time order as often as it is due (running the work
  // that each firing posts before the next firing). Returns the firings.
  std::size_t advance(double seconds);

  // Virtual seconds elapsed since construction.
  double now() const;
  std::size_t pendingCount() const;
  // Timers that are still valid.
  std::size_t activeTimerCount() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace telvo
