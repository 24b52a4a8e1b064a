#include "telvo/thread_executor.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <mutex>
#include <queue>
#include <thread>
#include <utility>
#include <vector>

#include "platform/callback_timer.h"
#include "telvo/log.h"

namespace telvo {
namespace {

using SteadyClock = std::chrono::steady_clock;

// Saturates at about thirty years so that a huge interval cannot overflow
// the clock's integer representation.
SteadyClock::duration toDuration(double seconds) {
  constexpr double kLongest = 1e9;
  return std::chrono::duration_cast<SteadyClock::duration>(
      std::chrono::duration<double>(seconds < kLongest ? seconds : kLongest));
}

using ThreadTimer = CallbackTimer;

struct TimerEntry {
  SteadyClock::time_point due;
  std::uint64_t sequence;  // equal due times fire in scheduling order
  std::shared_ptr<ThreadTimer> timer;
};

struct FiresLater {
  bool operator()(const TimerEntry& a, const TimerEntry& b) const {
    return a.due != b.due ? a.due > b.due : a.sequence > b.sequence;
  }
};

void runGuarded(const std::string& name, const std::function<void()>& work) {
  try {
    work();
  } catch (const std::exception& e) {
    log("telvo: work on " + name + " threw an exception and was dropped: " + e.what());
  } catch (...) {
    log("telvo: work on " + name + " threw an exception and was dropped");
  }
}

}  // namespace

struct TELVO_LOCAL ThreadExecutor::Core {
  Options options;

  std::mutex mutex;  // guards everything below except `thread`
  std::condition_variable wake;
  std::vector<std::function<void()>> incoming;
  std::priority_queue<TimerEntry, std::vector<TimerEntry>, FiresLater> timers;
  std::uint64_t nextSequence = 0;
  bool sleeping = false;  // the worker waits on `wake`: only then does a post notify
  bool stopping = false;
  bool exited = false;
  bool reportedDroppedWork = false;
  std::condition_variable exitedSignal;

  std::mutex threadMutex;  // guards `thread`, so concurrent shutdowns join once
  std::thread thread;
  std::thread::id workerId;

  void run();
  void adjustPriority();
};

void ThreadExecutor::Core::adjustPriority() {
  pthread_setname_np(pthread_self(), options.name.substr(0, 15).c_str());
  if (options.lowPriority) {
    // On Linux, PRIO_PROCESS with a thread id changes only that thread.
    // Refusal (e.g. by a container's policy) just leaves normal priority.
    (void)::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), 19);
  }
}

void ThreadExecutor::Core::run() {
  adjustPriority();
  std::vector<std::function<void()>> batch;
  std::unique_lock<std::mutex> lock(mutex);
  for (;;) {
    // A due timer fires before the next piece of work, so a queue that never
    // runs dry still flushes on time.
    if (!stopping && !timers.empty() && timers.top().due <= SteadyClock::now()) {
      TimerEntry entry = timers.top();
      timers.pop();
      lock.unlock();
      if (auto fire = entry.timer->callback()) {
        runGuarded(options.name, *fire);
        fire.reset();
      }
      lock.lock();
      if (!stopping && entry.timer->isValid()) {
        // A late worker skips the firings it missed instead of bursting.
        auto step = toDuration(entry.timer->timeInterval());
        auto next = entry.due + step;
        const auto now = SteadyClock::now();
        if (next <= now) next += step * ((now - next) / step + 1);
        timers.push({next, entry.sequence, std::move(entry.timer)});
      }
    }
    if (!incoming.empty()) {
      // Swapping keeps both vectors' capacity, so steady posting does not allocate.
      batch.swap(incoming);
      lock.unlock();
      for (auto& work : batch) runGuarded(options.name, work);
      batch.clear();  // closures are destroyed here, without the lock
      lock.lock();
      continue;
    }
    if (stopping) break;
    if (!timers.empty() && timers.top().due <= SteadyClock::now()) continue;
    sleeping = true;
    if (timers.empty()) {
      wake.wait(lock);
    } else {
      // A copy: the wait reads its deadline again after waking, when a timer
      // scheduled meanwhile may have moved the queue's storage.
      const auto due = timers.top().due;
      wake.wait_until(lock, due);
    }
    sleeping = false;
  }
  // Timers hold the host's callbacks; release them before reporting the exit.
  auto remaining = std::move(timers);
  lock.unlock();
  while (!remaining.empty()) {
    remaining.top().timer->invalidate();
    remaining.pop();
  }
  lock.lock();
  exited = true;
  exitedSignal.notify_all();
}

ThreadExecutor::ThreadExecutor() : ThreadExecutor(Options{}) {}

ThreadExecutor::ThreadExecutor(Options options) : core_(std::make_shared<Core>()) {
  core_->options = std::move(options);
  std::lock_guard<std::mutex> lock(core_->threadMutex);
  // The worker keeps the core alive, so a detached worker never outlives it.
  core_->thread = std::thread([core = core_] { core->run(); });
  core_->workerId = core_->thread.get_id();
}

ThreadExecutor::~ThreadExecutor() { shutdown(kDefaultShutdownDeadline); }

void ThreadExecutor::post(std::function<void()> work) {
  bool notify;
  bool report = false;
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
    if (core_->stopping) {
      report = !std::exchange(core_->reportedDroppedWork, true);
    } else {
      core_->incoming.push_back(std::move(work));
    }
    notify = core_->sleeping;
    core_->sleeping = false;  // one wake-up is enough for any number of posts
  }
  if (notify) core_->wake.notify_one();
  if (report) log("telvo: " + core_->options.name + " has shut down; work posted to it is dropped");
  // A dropped `work` is destroyed here, after the lock is released.
}

std::shared_ptr<Timer> ThreadExecutor::scheduleRepeating(double interval,
                                                         std::function<void()> fire) {
  auto timer = std::make_shared<ThreadTimer>(interval, std::move(fire));
  bool notify = false;
  bool accepted = false;
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
    if (!core_->stopping) {
      accepted = true;
      auto due = SteadyClock::now() + toDuration(timer->timeInterval());
      core_->timers.push({due, core_->nextSequence++, timer});
      // Only needed when the new timer is the earliest, but cheap either way.
      notify = core_->sleeping;
      core_->sleeping = false;
    }
  }
  if (notify) core_->wake.notify_one();
  if (!accepted) timer->invalidate();
  return timer;
}

bool ThreadExecutor::isCurrent() const {
  return std::this_thread::get_id() == core_->workerId;
}

bool ThreadExecutor::shutdown(double deadlineSeconds) {
  {
    std::lock_guard<std::mutex> lock(core_->mutex);
    core_->stopping = true;
  }
  core_->wake.notify_all();

  if (std::this_thread::get_id() == core_->workerId) {
    // Shut down from its own work (e.g. the last reference was dropped there):
    // the worker finishes by itself once the current item returns.
    std::lock_guard<std::mutex> lock(core_->threadMutex);
    if (core_->thread.joinable()) core_->thread.detach();
    return false;
  }

  {
    // Already given up on (or detached by the worker itself): waiting again
    // would only delay the caller a second time.
    std::lock_guard<std::mutex> threadLock(core_->threadMutex);
    if (!core_->thread.joinable()) {
      std::lock_guard<std::mutex> lock(core_->mutex);
      return core_->exited;
    }
  }
  bool ended;
  {
    std::unique_lock<std::mutex> lock(core_->mutex);
    ended = core_->exitedSignal.wait_for(lock, toDuration(std::max(0.0, deadlineSeconds)),
                                         [&] { return core_->exited; });
  }
  bool abandoned = false;
  {
    std::lock_guard<std::mutex> lock(core_->threadMutex);
    if (core_->thread.joinable()) {
      if (ended) {
        core_->thread.join();
      } else {
        core_->thread.detach();
        abandoned = true;
      }
    }
  }
  if (abandoned) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.1f", deadlineSeconds);
    log("telvo: " + core_->options.name + " did not stop within " + seconds +
        " s; left to finish on its own");
  }
  return ended;
}

}  // namespace telvo
