// The batch timer and the flush.
#include <algorithm>
#include <deque>

#include "core/event_queue.h"
#include "core/json_text.h"
#include "delivery/batch_payload.h"
#include "telvo/envelope.h"
#include "telvo/log.h"
#include "telvo/notification_center.h"
#include "telvo/telvo.h"
#include "telvo/url.h"

namespace telvo {

namespace {
constexpr const char* kTimerRefusal =
    "Telvo not initialized yet - cannot start timer or timer exists";
}  // namespace

void Telvo::startTimer(const Notification*) {
  std::shared_ptr<const TelvoMasterConfig> master;
  bool refuse = false;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    master = _masterConfig;
    refuse = _batchTimer || !isInitialized() || !master;
  }
  if (refuse) {
    if (debug()) log(kTimerRefusal);
    return;
  }
  // The executor is called without the lock; a start racing with this one is
  // settled below, keeping the timer that was stored first.
  std::weak_ptr<Telvo> weak = weak_from_this();
  auto timer = _mainQueue->scheduleRepeating(static_cast<double>(master->batchAmount()), [weak] {
    if (auto self = weak.lock()) self->timedPost();
  });
  bool raced = false;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_batchTimer) {
      raced = true;
    } else {
      _batchTimer = timer;
    }
  }
  if (raced) {
    timer->invalidate();
    if (debug()) log(kTimerRefusal);
    return;
  }
  if (debug()) log("Telvo timer - starting new timer");
}

void Telvo::stopTimer(const Notification*) {
  if (debug()) log("[TELVO::stopTimer:] - Stopping timer on instance: " + description());
  std::shared_ptr<Timer> timer;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    timer = std::move(_batchTimer);
    _batchTimer.reset();
  }
  if (timer) {
    timer->invalidate();
    if (debug()) log("Telvo timer - invalidating and nullifying");
  } else if (debug()) {
    log("Telvo timer already nil.");
  }
}

void Telvo::timedPost(const Timer*) {
  if (debug()) log("Dumping events on timer");
  dumpEvents();
}

void Telvo::dumpEvents() {
  _mainQueue->post([self = shared_from_this()] {
    try {
      self->flushNow();
    } catch (const std::exception& e) {
      log(std::string("Telvo: batch post dropped: ") + e.what());
    }
  });
}

void Telvo::flushNow() {
  // Taken whole and the queue left empty before anything is sent: whatever
  // becomes of the post, these events are not sent again.
  std::deque<core::QueuedEvent> events = _queue->takeAll();
  if (events.empty()) return;
  // Capture stamps events in order, so the queue is nearly always sorted
  // already; a check is far cheaper than a merge sort's moves.
  auto earlier = [](const core::QueuedEvent& a, const core::QueuedEvent& b) {
    return a.timestamp() < b.timestamp();
  };
  if (!std::is_sorted(events.begin(), events.end(), earlier)) {
    std::stable_sort(events.begin(), events.end(), earlier);
  }

  std::shared_ptr<const TelvoMasterConfig> master;
  std::shared_ptr<const Json> session;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    master = _masterConfig;
    session = _sessionID;
  }
  // The events themselves are freed once the post is on its way.
  const std::string payload = core::BatchPayload::write(*session, events);
  if (debug()) log("Sending events string: " + payload);

  std::optional<std::string> servicesUrl, batchApi;
  if (master) {
    servicesUrl = master->servicesUrl();
    batchApi = master->batchApi();
  }
  _transport->sendRequest(
      envelopeRequest(core::textOrNull(servicesUrl) + core::textOrNull(batchApi) + ".json",
                      payload),
      3, shared_from_this());
}

}  // namespace telvo
