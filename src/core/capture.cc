// Event capture: acceptance on the caller's thread, the record and the flush
// decision on the main queue.
#include <charconv>

#include "core/telvo_impl.h"
#include "delivery/flush_rules.h"
#include "encoding/field_text.h"
#include "encoding/json_text.h"
#include "telvo/log.h"

namespace telvo {

namespace {

// Buffers of pending events larger than this are freed after use rather
// than kept for the next ones.
constexpr std::size_t kKeptBufferBytes = 4 << 20;

}  // namespace

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
  if (schedule) postDrain(name);
}

void Telvo::Impl::sendEvent(std::string_view name, const Field* fields, std::size_t count) {
  if (count == 0) return sendEvent(std::string(name), std::nullopt);
  if (!initialized.load(std::memory_order_acquire)) return;
  if (!enabled.load(std::memory_order_acquire)) return;
  if (throttled.load(std::memory_order_acquire)) return;

  // Written here, outside the lock, into a buffer this thread keeps; the
  // client's "timestamp" is put in front at capture.
  thread_local std::string members;
  members.clear();
  if (!encoding::appendFields(members, fields, count, encoding::NonFinite::kRefuse, "timestamp")) {
    log("Telvo: dropped event \"" + std::string(name) +
        "\": its data holds a number JSON cannot represent (NaN or infinity)");
    return;
  }
  bool schedule = false;
  {
    std::lock_guard<std::mutex> lock(pendingMutex);
    PendingEvent event;
    event.fields = true;
    event.textOffset = pendingText.size();
    event.nameLength = name.size();
    event.membersLength = members.size();
    pendingText.append(name).append(members);  // first: a failure leaves no event behind
    pending.push_back(std::move(event));
    schedule = !drainScheduled;
    drainScheduled = true;
  }
  // A rare huge event should not pin its buffer to the thread.
  if (members.capacity() > kKeptBufferBytes) std::string().swap(members);
  if (schedule) postDrain(name);
}

void Telvo::Impl::postDrain(std::string_view name) {
  try {
    platform.mainQueue->post([self = self()] { self->_impl->drainPendingEvents(); });
  } catch (const std::exception& e) {
    // Nothing is scheduled: the next call tries again, and the events taken
    // so far wait for it instead of piling up unseen.
    {
      std::lock_guard<std::mutex> lock(pendingMutex);
      drainScheduled = false;
    }
    log(std::string("Telvo: the main queue refused the capture of event \"") + std::string(name) +
        "\" (it waits for the next event): " + e.what());
  }
}

void Telvo::Impl::drainPendingEvents() {
  // The pending buffers trade places with the drained ones, emptied last
  // time but keeping their memory: a steady stream of events allocates and
  // touches no new memory here or in sendEvent.
  {
    std::lock_guard<std::mutex> lock(pendingMutex);
    drained.swap(pending);
    drainedText.swap(pendingText);
    // From here on a new call schedules a new drain, which runs after this one.
    drainScheduled = false;
  }
  const Snapshot current = snapshot();
  for (auto& event : drained) {
    try {
      captureEvent(event, drainedText, current);
    } catch (const std::exception& e) {
      log("Telvo: dropped event \"" +
          (event.fields ? drainedText.substr(event.textOffset, event.nameLength) : event.name) +
          "\": " + e.what());
    }
  }
  drained.clear();
  drainedText.clear();
  // After a burst, keep no more than a working set.
  if (drainedText.capacity() > kKeptBufferBytes) std::string().swap(drainedText);
  if (drained.capacity() * sizeof(PendingEvent) > kKeptBufferBytes) {
    std::vector<PendingEvent>().swap(drained);
  }
}

void Telvo::Impl::captureEvent(PendingEvent& event, std::string_view pendingText,
                               const Snapshot& current) {
  const std::string_view name = event.fields
                                    ? pendingText.substr(event.textOffset, event.nameLength)
                                    : std::string_view(event.name);
  const std::string_view members =
      event.fields ? pendingText.substr(event.textOffset + event.nameLength, event.membersLength)
                   : std::string_view();
  const bool debugging = this->debugging();
  if (debugging) {
    const std::string data = !event.fields     ? encoding::jsonOrNull(event.data)
                             : members.empty() ? std::string("{}")
                                               : "{" + std::string(members.substr(1)) + "}";
    log("Queueing up event: " + std::string(name) + " with data: " + data);
  }

  // The data is written into a reused buffer; the queued record then copies
  // name and data once, at their exact size, into one allocation.
  thread_local std::string text;
  text.clear();
  const double stamp = serviceMilliseconds();
  if (event.fields) {
    char digits[32];
    text += "{\"timestamp\":";
    text.append(digits,
                std::to_chars(digits, digits + sizeof digits, wholeMilliseconds(stamp)).ptr);
    text += members;
    text += '}';
  } else if (event.data) {
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
      log("Telvo: dropped event \"" + std::string(name) +
          "\": it has no data and the configuration has no appName");
      return;
    }
  }
  auto record =
      delivery::QueuedEvent::make(name, text, /*dataIsCompactJson=*/true, stamp, current.session);
  if (!record) {
    log("Telvo: dropped an event whose name is 4 GiB or longer");
    return;
  }
  queue.push(std::move(*record));

  static const std::optional<std::vector<std::string>> kNoPriorities;
  const TelvoMasterConfig* master = current.master.get();
  const auto decision = delivery::CaptureFlush::decide(
      name, current.config ? current.config->highPriorityEvents() : kNoPriorities,
      master && master->batchMode() == 1, master ? master->batchAmount() : 0,
      postCount.load(std::memory_order_relaxed));
  if (decision.counted) postCount.store(decision.postCount, std::memory_order_relaxed);
  if (decision.onCount && debugging) log("Dumping events on count");
  for (int i = 0; i < decision.flushes; ++i) dumpEvents();
  if (decision.counted && debugging) log("Post count: " + std::to_string(decision.postCount));
}

}  // namespace telvo
