#include "telvo/executor.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <future>
#include <mutex>

#include "platform/default_queues.h"
#include "platform/process_default.h"
#include "telvo/thread_executor.h"

namespace telvo {
namespace {

// How long process exit waits for each default queue's current work.
constexpr double kExitDeadline = 1.5;  // seconds

std::shared_ptr<Executor> makeMainQueue() {
  return std::make_shared<ThreadExecutor>(ThreadExecutor::Options{"telvo-main", false});
}
std::shared_ptr<Executor> makeBackgroundQueue() {
  return std::make_shared<ThreadExecutor>(ThreadExecutor::Options{"telvo-reports", true});
}

platform::ProcessDefault<Executor>& mainHolder() {
  static auto& h = platform::leakedDefault<Executor>(makeMainQueue);
  return h;
}
platform::ProcessDefault<Executor>& backgroundHolder() {
  static auto& h = platform::leakedDefault<Executor>(makeBackgroundQueue);
  return h;
}

// Stops the library-owned queues at process exit with a deadline, so a busy
// or stuck worker cannot hang the host's exit. A host-supplied queue is the
// host's to stop.
void stopDefaultQueues() {
  for (const auto& queue : {mainHolder().peek(), backgroundHolder().peek()}) {
    if (auto owned = std::dynamic_pointer_cast<ThreadExecutor>(queue)) {
      owned->shutdown(kExitDeadline);
    }
  }
}

void registerExitHandler() {
  static std::once_flag registered;
  std::call_once(registered, [] { std::atexit(stopDefaultQueues); });
}

}  // namespace

std::shared_ptr<Executor> mainQueue() {
  registerExitHandler();
  return mainHolder().get();
}

// A replaced ThreadExecutor waits for its worker: released outside the lock.
void setMainQueue(std::shared_ptr<Executor> queue) { mainHolder().set(std::move(queue)); }

std::shared_ptr<Executor> backgroundQueue() {
  registerExitHandler();
  return backgroundHolder().get();
}

void setBackgroundQueue(std::shared_ptr<Executor> queue) {
  backgroundHolder().set(std::move(queue));
}

namespace platform {
std::shared_ptr<Executor> peekMainQueue() { return mainHolder().peek(); }
std::shared_ptr<Executor> peekBackgroundQueue() { return backgroundHolder().peek(); }
}  // namespace platform

bool drain(Executor& queue, double timeout) {
  auto done = std::make_shared<std::promise<void>>();
  auto future = done->get_future();
  queue.post([done] { done->set_value(); });
  return future.wait_for(std::chrono::duration<double>(std::max(0.0, timeout))) ==
         std::future_status::ready;
}

}  // namespace telvo
