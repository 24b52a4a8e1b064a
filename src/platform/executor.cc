#include "telvo/executor.h"

#include <cstdlib>
#include <mutex>
#include <utility>

#include "telvo/thread_executor.h"

namespace telvo {
namespace {

// How long process exit waits for each default queue's current work.
constexpr double kExitDeadline = 1.5;  // seconds

struct QueueHolder {
  std::mutex mutex;
  std::shared_ptr<Executor> main;
  std::shared_ptr<Executor> background;
};

QueueHolder& holder() {
  static QueueHolder* h = new QueueHolder;  // leaked: usable during exit
  return *h;
}

// Stops the library-owned queues at process exit with a deadline, so a busy
// or stuck worker cannot hang the host's exit. A host-supplied queue is the
// host's to stop.
void stopDefaultQueues() {
  std::shared_ptr<Executor> main, background;
  {
    std::lock_guard<std::mutex> lock(holder().mutex);
    main = holder().main;
    background = holder().background;
  }
  for (const auto& queue : {main, background}) {
    if (auto owned = std::dynamic_pointer_cast<ThreadExecutor>(queue)) {
      owned->shutdown(kExitDeadline);
    }
  }
}

void registerExitHandler() {
  static std::once_flag registered;
  std::call_once(registered, [] { std::atexit(stopDefaultQueues); });
}

std::shared_ptr<Executor> get(std::shared_ptr<Executor> QueueHolder::*slot, const char* name,
                              bool lowPriority) {
  registerExitHandler();
  std::lock_guard<std::mutex> lock(holder().mutex);
  auto& queue = holder().*slot;
  if (!queue) queue = std::make_shared<ThreadExecutor>(ThreadExecutor::Options{name, lowPriority});
  return queue;
}

void set(std::shared_ptr<Executor> QueueHolder::*slot, std::shared_ptr<Executor> queue) {
  std::shared_ptr<Executor> previous;
  {
    std::lock_guard<std::mutex> lock(holder().mutex);
    previous = std::exchange(holder().*slot, std::move(queue));
  }
  // Released outside the lock: a replaced ThreadExecutor waits for its worker.
}

}  // namespace

std::shared_ptr<Executor> mainQueue() { return get(&QueueHolder::main, "telvo-main", false); }

void setMainQueue(std::shared_ptr<Executor> queue) { set(&QueueHolder::main, std::move(queue)); }

std::shared_ptr<Executor> backgroundQueue() {
  return get(&QueueHolder::background, "telvo-background", true);
}

void setBackgroundQueue(std::shared_ptr<Executor> queue) {
  set(&QueueHolder::background, std::move(queue));
}

}  // namespace telvo
