// telvo::shutdown: stops the library's own threads in the order work flows
// through them (main queue, background queue, transports), all within one
// deadline.
#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>

#include "core/shutdown.h"
#include "delivery/curl_client.h"
#include "platform/default_queues.h"
#include "telvo/executor.h"
#include "telvo/telvo.h"
#include "telvo/thread_executor.h"

namespace telvo {

bool shutdown(std::chrono::milliseconds timeout) {
  using SteadyClock = std::chrono::steady_clock;
  const auto deadline = core::deadlineAfter(timeout);
  auto remaining = [&] {
    return std::max(0.0, std::chrono::duration<double>(deadline - SteadyClock::now()).count());
  };
  // One stop at a time; a second caller finds the threads already stopped
  // and returns at once.
  static std::mutex* const serial = new std::mutex();
  std::lock_guard<std::mutex> lock(*serial);
  core::libraryStopped.store(true);

  bool stoppedAll = true;
  // The queues' work still runs (captures, flushes, error reports already
  // handed over), then the transports get what time is left.
  for (const auto& queue : {platform::peekMainQueue(), platform::peekBackgroundQueue()}) {
    if (auto owned = std::dynamic_pointer_cast<ThreadExecutor>(queue)) {
      stoppedAll = owned->shutdown(remaining()) && stoppedAll;
    }
  }
  return delivery::CurlClient::stopAll(deadline) && stoppedAll;
}

}  // namespace telvo
