// The batch timer and the flush.
#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <deque>

#include "core/shutdown.h"
#include "core/telvo_impl.h"
#include "delivery/batch_payload.h"
#include "delivery/flush_rules.h"
#include "telvo/log.h"

namespace telvo {

using delivery::BatchTimerRules;

void Telvo::Impl::startTimer() {
  std::shared_ptr<const TelvoMasterConfig> master;
  bool mayStart = false;
  {
    std::lock_guard<std::mutex> lock(mutex);
    master = masterConfig;
    mayStart = BatchTimerRules::mayStart(batchTimer != nullptr, owner.isInitialized(),
                                         master != nullptr);
  }
  if (!mayStart) {
    if (debugging()) log(BatchTimerRules::kRefusal);
    return;
  }
  // The executor is called without the lock; a start racing with this one is
  // settled below, keeping the timer that was stored first.
  std::weak_ptr<Telvo> weak = self();
  auto timer = platform.mainQueue->scheduleRepeating(BatchTimerRules::interval(master->batchAmount()), [weak] {
    if (auto client = weak.lock()) client->timedPost();
  });
  bool raced = false;
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (batchTimer) {
      raced = true;
    } else {
      batchTimer = timer;
    }
  }
  if (raced) {
    timer->invalidate();
    if (debugging()) log(BatchTimerRules::kRefusal);
    return;
  }
  if (debugging()) log("Telvo timer - starting new timer");
}

void Telvo::Impl::stopTimer() {
  if (debugging()) log("[TELVO::stopTimer:] - Stopping timer on instance: " + owner.description());
  std::shared_ptr<Timer> timer;
  {
    std::lock_guard<std::mutex> lock(mutex);
    timer = std::move(batchTimer);
    batchTimer.reset();
  }
  if (timer) {
    timer->invalidate();
    if (debugging()) log("Telvo timer - invalidating and nullifying");
  } else if (debugging()) {
    log("Telvo timer already nil.");
  }
}

void Telvo::Impl::dumpEvents() {
  try {
    platform.mainQueue->post([self = self()] {
      try {
        self->_impl->flushNow();
      } catch (const std::exception& e) {
        log(std::string("Telvo: batch post dropped: ") + e.what());
      }
    });
  } catch (const std::exception& e) {
    // The events stay queued for the next flush.
    log(std::string("Telvo: the main queue refused a flush: ") + e.what());
  }
}

void Telvo::Impl::flushNow() {
  // Taken whole and the queue left empty before anything is sent: whatever
  // becomes of the post, these events are not sent again.
  std::deque<delivery::QueuedEvent> events = queue.takeAll();
  if (events.empty()) return;
  // Capture stamps events in order, so the queue is nearly always sorted
  // already; a check is far cheaper than a merge sort's moves.
  auto earlier = [](const delivery::QueuedEvent& a, const delivery::QueuedEvent& b) {
    return a.timestamp() < b.timestamp();
  };
  if (!std::is_sorted(events.begin(), events.end(), earlier)) {
    std::stable_sort(events.begin(), events.end(), earlier);
  }

  const Snapshot current = snapshot();
  // The events themselves are freed once the post is on its way.
  const std::string payload = delivery::BatchPayload::write(*current.session, events);
  if (debugging()) log("Sending events string: " + payload);
  std::optional<std::string> servicesUrl, batchApi;
  if (current.master) {
    servicesUrl = current.master->servicesUrl();
    batchApi = current.master->batchApi();
  }
  platform.transport->sendRequest(delivery::BatchPayload::request(servicesUrl, batchApi, payload),
                                  kPostContext,
                                  core::Deliveries::tracked(self(), deliveries->begin()));
}

bool Telvo::Impl::flush(std::chrono::milliseconds timeout) {
  const auto deadline = core::deadlineAfter(timeout);
  if (platform.mainQueue->isCurrent()) {
    // Waiting here would hold up the very work waited for.
    dumpEvents();
    return false;
  }
  // On the main queue, behind every capture already accepted: capture them,
  // flush, and note which posts and reports are now handed over.
  struct Horizon {
    std::mutex mutex;
    std::condition_variable set;
    std::optional<std::uint64_t> value;
  };
  auto horizon = std::make_shared<Horizon>();
  try {
    platform.mainQueue->post([self = self(), horizon] {
      try {
        self->_impl->drainPendingEvents();
        self->_impl->flushNow();
      } catch (const std::exception& e) {
        log(std::string("Telvo: batch post dropped: ") + e.what());
      }
      {
        std::lock_guard<std::mutex> lock(horizon->mutex);
        horizon->value = self->_impl->deliveries->horizon();
      }
      horizon->set.notify_all();
    });
  } catch (const std::exception& e) {
    log(std::string("Telvo: the main queue refused a flush: ") + e.what());
    return false;
  }
  std::uint64_t until;
  {
    std::unique_lock<std::mutex> lock(horizon->mutex);
    if (!horizon->set.wait_until(lock, deadline, [&] { return horizon->value.has_value(); })) {
      return false;
    }
    until = *horizon->value;
  }
  return deliveries->waitBefore(until, deadline);
}

}  // namespace telvo
