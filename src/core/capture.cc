// Event capture: acceptance on the caller's thread, the record and the flush
// decision on the main queue.
#include "core/telvo_impl.h"
#include "delivery/flush_rules.h"
#include "encoding/json_text.h"
#include "telvo/log.h"

namespace telvo {

void Telvo::Impl::sendEvent(const std::string& name, std::optional<Json> data) {
  if (data && !data->is_object()) {
    throw UsageError("Telvo::sendEvent: data for event \"" + name +
                     "\" must be a JSON object, not " + data->type_name());
  }
  if (!initialized.load(std::memory_order_acquire)) return;
  if (!enabled.load(std::memory_order_acquire)) return;
  if (throttled.load(std::memory_order_acquire)) return;

  bool schedule = false;
  {
    std::lock_guard<std::mutex> lock(pendingMutex);
    pending.push_back(PendingEvent{name, std::move(data)});
    schedule = !drainScheduled;
    drainScheduled = true;
  }
  if (!schedule) return;
  try {
    platform.mainQueue->post([self = self()] { self->_impl->drainPendingEvents(); });
  } catch (const std::exception& e) {
    // Nothing is scheduled: the next call tries again, and the events taken
    // so far wait for it instead of piling up unseen.
    {
      std::lock_guard<std::mutex> lock(pendingMutex);
      drainScheduled = false;
    }
    log(std::string("Telvo: the main queue refused the capture of event \"") + name +
        "\" (it waits for the next event): " + e.what());
  }
}

void Telvo::Impl::drainPendingEvents() {
  std::vector<PendingEvent> taken;
  {
    std::lock_guard<std::mutex> lock(pendingMutex);
    taken.swap(pending);
    // From here on a new call schedules a new drain, which runs after this one.
    drainScheduled = false;
  }
  const Snapshot current = snapshot();
  for (auto& event : taken) {
    try {
      captureEvent(event, current);
    } catch (const std::exception& e) {
      log("Telvo: dropped event \"" + event.name + "\": " + e.what());
    }
  }
  // Give the buffer back so the next burst does not allocate again.
  taken.clear();
  std::lock_guard<std::mutex> lock(pendingMutex);
  if (pending.empty() && pending.capacity() < taken.capacity()) pending.swap(taken);
}

void Telvo::Impl::captureEvent(PendingEvent& event, const Snapshot& current) {
  const bool debugging = this->debugging();
  if (debugging) {
    log("Queueing up event: " + event.name + " with data: " + encoding::jsonOrNull(event.data));
  }

  // The data is written into a reused buffer; the queued record then copies
  // name and data once, at their exact size, into one allocation.
  thread_local std::string text;
  text.clear();
  const double stamp = serviceMilliseconds();
  if (event.data) {
    if (!encoding::appendEventData(text, *event.data, wholeMilliseconds(stamp))) {
      log("Telvo: dropped event \"" + event.name +
          "\": its data holds a number JSON cannot represent (NaN or infinity)");
      return;
    }
  } else {
    if (const auto appName = applicationName(current.config.get())) {
      text += "{\"applicationName\":";
      encoding::appendJson(text, *appName);
      text += '}';
    } else {
      log("Telvo: dropped event \"" + event.name +
          "\": it has no data and the configuration has no appName");
      return;
    }
  }
  auto record = delivery::QueuedEvent::make(event.name, text, /*dataIsCompactJson=*/true, stamp,
                                            current.session);
  if (!record) {
    log("Telvo: dropped an event whose name is 4 GiB or longer");
    return;
  }
  queue.push(std::move(*record));

  static const std::optional<std::vector<std::string>> kNoPriorities;
  const TelvoMasterConfig* master = current.master.get();
  const auto decision = delivery::CaptureFlush::decide(
      event.name, current.config ? current.config->highPriorityEvents() : kNoPriorities,
      master && master->batchMode() == 1, master ? master->batchAmount() : 0,
      postCount.load(std::memory_order_relaxed));
  if (decision.counted) postCount.store(decision.postCount, std::memory_order_relaxed);
  if (decision.onCount && debugging) log("Dumping events on count");
  for (int i = 0; i < decision.flushes; ++i) dumpEvents();
  if (decision.counted && debugging) log("Post count: " + std::to_string(decision.postCount));
}

}  // namespace telvo
