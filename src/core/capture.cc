// Event capture: acceptance on the caller's thread, the record and the flush
// decision on the main queue.
#include <cstdio>

#include "core/event_queue.h"
#include "core/json_text.h"
#include "telvo/log.h"
#include "telvo/telvo.h"

namespace telvo {

void Telvo::sendEvent(const std::string& name, std::optional<Json> data) {
  if (data && !data->is_object()) {
    throw UsageError("Telvo::sendEvent: data for event \"" + name +
                     "\" must be a JSON object, not " + data->type_name());
  }
  if (!_initialized.load(std::memory_order_acquire)) return;
  if (!_enabled.load(std::memory_order_acquire)) return;
  if (_throttled.load(std::memory_order_acquire)) return;

  bool schedule = false;
  {
    std::lock_guard<std::mutex> lock(_pendingMutex);
    _pending.push_back(PendingEvent{name, std::move(data)});
    schedule = !_drainScheduled;
    _drainScheduled = true;
  }
  if (schedule) {
    _mainQueue->post([self = shared_from_this()] { self->drainPendingEvents(); });
  }
}

void Telvo::drainPendingEvents() {
  std::vector<PendingEvent> pending;
  {
    std::lock_guard<std::mutex> lock(_pendingMutex);
    pending.swap(_pending);
    // From here on a new call schedules a new drain, which runs after this one.
    _drainScheduled = false;
  }
  const auto [config, master, session] = snapshot();
  for (auto& event : pending) {
    try {
      captureEvent(event, config, master, session);
    } catch (const std::exception& e) {
      log("Telvo: dropped event \"" + event.name + "\": " + e.what());
    }
  }
  // Give the buffer back so the next burst does not allocate again.
  pending.clear();
  std::lock_guard<std::mutex> lock(_pendingMutex);
  if (_pending.empty() && _pending.capacity() < pending.capacity()) _pending.swap(pending);
}

void Telvo::captureEvent(PendingEvent& pending, const std::shared_ptr<const TelvoConfig>& config,
                         const std::shared_ptr<const TelvoMasterConfig>& master,
                         const std::shared_ptr<const Json>& session) {
  const bool debugging = debug();
  if (debugging) {
    log("Queueing up event: " + pending.name + " with data: " + core::jsonOrNull(pending.data));
  }

  // The data is written into a reused buffer; the queued record then copies
  // name and data once, at their exact size, into one allocation.
  thread_local std::string text;
  text.clear();
  if (pending.data) {
    if (!core::appendEventData(text, *pending.data,
                               static_cast<std::int64_t>(serviceMilliseconds()))) {
      log("Telvo: dropped event \"" + pending.name +
          "\": its data holds a number JSON cannot represent (NaN or infinity)");
      return;
    }
  } else {
    if (!config || !config->appName()) {
      log("Telvo: dropped event \"" + pending.name +
          "\": it has no data and the configuration has no appName");
      return;
    }
    text += "{\"applicationName\":";
    core::appendJsonString(text, *config->appName());
    text += '}';
  }
  auto event = core::QueuedEvent::make(pending.name, text, /*dataIsClientJson=*/true,
                                       serviceMilliseconds(), session);
  if (!event) {
    log("Telvo: dropped an event whose name is 4 GiB or longer");
    return;
  }

  const std::string& name = pending.name;
  bool highPriority = false;
  int priorityFlushes = 0;
  if (config && config->highPriorityEvents() && !config->highPriorityEvents()->empty()) {
    highPriority = true;
    for (const auto& entry : *config->highPriorityEvents()) {
      if (entry == name) ++priorityFlushes;
    }
  }
  const bool isError = !highPriority && name == "error";
  _queue->push(std::move(*event));

  // A non-empty high-priority list switches the "error" and count rules off.
  if (highPriority) {
    for (int i = 0; i < priorityFlushes; ++i) dumpEvents();
    return;
  }
  if (isError) {
    dumpEvents();
    return;
  }
  if (master && master->batchMode() == 1) {
    std::int64_t count = _postCount.load(std::memory_order_relaxed) + 1;
    _postCount.store(count, std::memory_order_relaxed);
    if (count == master->batchAmount()) {
      count = 0;
      _postCount.store(0, std::memory_order_relaxed);
      if (debugging) log("Dumping events on count");
      dumpEvents();
    }
    if (debugging) log("Post count: " + std::to_string(count));
  }
}

}  // namespace telvo
