// Event capture: acceptance, the stamp and the flush decision on the
// caller's thread; the record on whichever thread drains the pending events
// (the main queue, or a thread that needs the queue whole).
#include <charconv>
#include <cmath>

#include "core/telvo_impl.h"
#include "delivery/flush_rules.h"
#include "encoding/field_text.h"
#include "encoding/json_text.h"
#include "platform/wall_clock.h"
#include "telvo/clock.h"
#include "telvo/log.h"

namespace telvo {

namespace {

// Buffers of pending events larger than this are freed after use rather
// than kept for the next ones.
constexpr std::size_t kKeptBufferBytes = 4 << 20;

// Pending events are handed to the main queue once they hold this many
// bytes, though nothing asks for a flush: a burst is captured in runs, and
// memory stays with the queue, where the flush takes it from.
constexpr std::size_t kDrainBytes = 64 << 10;

// The room "timestamp" and its braces take in a written event.
constexpr std::size_t kStampBytes = 32;

// What a Json event's data will take once written, guessed from its member
// count alone: the caller's thread pays for no walk of the tree. The
// capture accounts the real size, and a drain follows at least every
// kDrainBytes of guesses.
constexpr std::size_t kGuessedMemberBytes = 24;
std::size_t estimatedBytes(const Json& data) {
  return kStampBytes + data.size() * kGuessedMemberBytes;
}

std::string byteCount(std::size_t bytes) { return std::to_string(bytes) + " bytes"; }

// The lines of a drop episode's start, made only then and kept out of the
// call's own code.
[[gnu::cold, gnu::noinline]] std::string tooLargeLine(std::string_view name, std::size_t bytes,
                                                       std::size_t limit) {
  return "Telvo: dropped event \"" + std::string(name.substr(0, 64)) + "\" of " +
         byteCount(bytes) + ": larger than one post may be (" + byteCount(limit) +
         "); such events are dropped and counted until one fits";
}

[[gnu::cold, gnu::noinline]] std::string queueFullLine(std::size_t limit) {
  return "Telvo: the event queue is full (" + byteCount(limit) +
         "): new events are dropped and counted until a flush makes room";
}

}  // namespace

double Telvo::Impl::serviceMilliseconds() const {
  // std::round rounds half-way cases away from zero. The system's clock is
  // read through the tick counter: a stamp per call costs a few nanoseconds.
  const double now = systemClock ? ::telvo::platform::WallClock::now() : platform.clock->now();
  return std::round(now * 1000.0) - timeStampDelta.load(std::memory_order_relaxed);
}

bool Telvo::Impl::acceptsEvent(bool& early) {
  if (!initialized.load(std::memory_order_acquire)) {
    if (options.retry && !earlyRefused.load(std::memory_order_relaxed)) {
      early = true;
      return true;
    }
    (earlyRefused.load(std::memory_order_relaxed) ? counters.eventsRefusedDisabled
                                                  : counters.eventsRefusedNotInitialized)
        .add();
    return false;
  }
  if (!enabled.load(std::memory_order_acquire)) {
    counters.eventsRefusedDisabled.add();
    return false;
  }
  if (throttled.load(std::memory_order_acquire)) {
    counters.eventsRefusedThrottled.add();
    return false;
  }
  return true;
}

void Telvo::Impl::sendEvent(const std::string& name, std::optional<Json> data) {
  if (data && !data->is_object()) {
    throw UsageError("Telvo::sendEvent: data for event \"" + name +
                     "\" must be a JSON object, not " + data->type_name());
  }
  PendingEvent event;
  if (!acceptsEvent(event.early)) return;
  event.stamp = serviceMilliseconds();
  event.bytes = name.size() + delivery::QueuedEvent::kOverheadBytes +
                (data ? estimatedBytes(*data) : kStampBytes);
  event.name = name;
  event.data = std::move(data);
  enqueue(std::move(event), name, {});
}

void Telvo::Impl::sendEvent(std::string_view name, const Field* fields, std::size_t count) {
  if (count == 0) return sendEvent(std::string(name), std::nullopt);
  bool early = false;
  if (!acceptsEvent(early)) return;

  // Written here, outside the lock, into a buffer this thread keeps; the
  // client's "timestamp" is put in front at capture.
  thread_local std::string members;
  members.clear();
  if (!encoding::appendFields(members, fields, count, encoding::NonFinite::kRefuse, "timestamp")) {
    {
      std::lock_guard<std::mutex> lock(pendingMutex);
      counters.eventsAccepted.addLocked();
    }
    counters.eventsDroppedUnwritable.add();
    log("Telvo: dropped event \"" + std::string(name) +
        "\": its data holds a number JSON cannot represent (NaN or infinity)");
    return;
  }
  PendingEvent event;
  event.early = early;
  event.stamp = serviceMilliseconds();
  event.fields = true;
  event.nameLength = name.size();
  event.membersLength = members.size();
  event.bytes = name.size() + members.size() + kStampBytes + delivery::QueuedEvent::kOverheadBytes;
  enqueue(std::move(event), name, members);
  // A rare huge event should not pin its buffer to the thread.
  if (members.capacity() > kKeptBufferBytes) std::string().swap(members);
}

void Telvo::Impl::enqueue(PendingEvent event, std::string_view name, std::string_view members) {
  const std::size_t bytes = event.bytes;
  const bool tooBig = bytes > options.maxPostBytes;
  bool full = false;
  bool roomy = false;
  bool schedule = false;
  bool spoolPass = false;
  {
    std::lock_guard<std::mutex> lock(pendingMutex);
    counters.eventsAccepted.addLocked();
    const auto queued = static_cast<std::size_t>(
        std::max<std::int64_t>(0, queuedBytes.load(std::memory_order_relaxed)));
    const std::size_t held = queued + pendingBytes;
    full = held > options.maxQueuedBytes || bytes > options.maxQueuedBytes - held;
    // A full queue's episode ends once half of it is free again, not when
    // a capture frees the room of a few events that a flood takes at once.
    roomy = !full && held + bytes <= options.maxQueuedBytes / 2;
    if (!tooBig && !full) {
      if (event.fields) {
        event.textOffset = pendingText.size();
        pendingText.append(name).append(members);  // first: a failure leaves no event behind
      }
      if (event.early && earlyDelta) {
        // The hello answered meanwhile: on the service's clock after all.
        event.stamp -= *earlyDelta;
        event.early = false;
      }
      // The decision capture carries out, made now so that a flush is asked
      // for at once, in acceptance order. Early events ask for none: the
      // hello's answer flushes them.
      static const std::optional<std::vector<std::string>> kNoPriorities;
      const CaptureRules& rules = captureRules;
      if (!event.early) {
        event.decision = delivery::CaptureFlush::decide(
            name, rules.priorities ? rules.config->highPriorityEvents() : kNoPriorities,
            rules.countBatching, rules.batchAmount, postCount.load(std::memory_order_relaxed));
      }
      if (event.decision.counted) {
        postCount.store(event.decision.postCount, std::memory_order_relaxed);
      }
      const bool flushes = event.decision.flushes > 0;
      pending.push_back(std::move(event));
      pendingBytes += bytes;
      schedule = !drainScheduled && (flushes || pendingBytes >= kDrainBytes);
      drainScheduled = drainScheduled || schedule;
      spoolPass = spool && !spoolPassScheduled;
      spoolPassScheduled = spoolPassScheduled || spoolPass;
    }
  }
  if (tooBig || full) [[unlikely]] {
    dropEvent(tooBig, name, bytes);
    return;
  }
  if (roomy) queueFull.fits();
  tooLarge.fits();
  if (schedule) postDrain(name);
  if (spoolPass) scheduleSpoolPass();
}

void Telvo::Impl::dropEvent(bool tooBig, std::string_view name, std::size_t bytes) {
  if (tooBig) {
    counters.eventsDroppedTooLarge.add();
    tooLarge.drop([&] { return tooLargeLine(name, bytes, options.maxPostBytes); });
  } else {
    counters.eventsDroppedQueueFull.add();
    queueFull.drop([&] { return queueFullLine(options.maxQueuedBytes); });
  }
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
  std::lock_guard<std::mutex> drainLock(drainMutex);
  drainLocked();
}

void Telvo::Impl::drainLocked() {
  // To disk first, early events included.
  if (spool) spoolPending();
  // Early events wait, uncaptured, for the session the hello will give them.
  if (options.retry && !initialized.load(std::memory_order_acquire)) return;
  // The pending buffers trade places with the drained ones, emptied last
  // time but keeping their memory: a steady stream of events allocates and
  // touches no new memory here or in sendEvent.
  {
    std::lock_guard<std::mutex> lock(pendingMutex);
    drained.swap(pending);
    drainedText.swap(pendingText);
    // Their estimates count as queued until the capture knows the sizes.
    queuedBytes.fetch_add(static_cast<std::int64_t>(pendingBytes));
    pendingBytes = 0;
    // From here on a new call schedules a new drain, which runs after this one.
    drainScheduled = false;
  }
  if (drained.empty()) return;
  const Snapshot current = snapshot();
  for (auto& event : drained) {
    try {
      captureEvent(event, drainedText, current);
    } catch (const std::exception& e) {
      queuedBytes.fetch_sub(static_cast<std::int64_t>(event.bytes));
      counters.eventsDroppedUnwritable.add();
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
  const double stamp = event.stamp;
  std::optional<std::string> dropped;
  if (event.fields) {
    char digits[32];
    text += "{\"timestamp\":";
    text.append(digits,
                std::to_chars(digits, digits + sizeof digits, wholeMilliseconds(stamp)).ptr);
    text += members;
    text += '}';
  } else if (event.data) {
    if (!encoding::appendEventData(text, *event.data, wholeMilliseconds(stamp))) {
      dropped = "its data holds a number JSON cannot represent (NaN or infinity)";
    }
  } else if (const auto appName = applicationName(current.config.get())) {
    text += "{\"applicationName\":";
    encoding::appendJson(text, *appName);
    text += '}';
  } else {
    dropped = "it has no data and the configuration has no appName";
  }
  std::optional<delivery::QueuedEvent> record;
  if (!dropped) {
    record = delivery::QueuedEvent::make(name, text, /*dataIsCompactJson=*/true, stamp,
                                         current.session);
    if (!record) dropped = "its name is 4 GiB or longer";
  }
  if (record) {
    queuedBytes.fetch_add(static_cast<std::int64_t>(record->bytes()) -
                        static_cast<std::int64_t>(event.bytes));
    record->setSpoolSequence(event.spoolSequence);
    queue.push(std::move(*record));
  } else {
    queuedBytes.fetch_sub(static_cast<std::int64_t>(event.bytes));
    if (event.spoolSequence != 0) forget({event.spoolSequence});
    counters.eventsDroppedUnwritable.add();
    log("Telvo: dropped event \"" + std::string(name) + "\": " + *dropped);
  }

  // The flushes its acceptance asked for go ahead whatever became of it: the
  // count moved on when it was accepted.
  const delivery::CaptureFlush& decision = event.decision;
  if (decision.onCount && debugging) log("Dumping events on count");
  for (int i = 0; i < decision.flushes; ++i) dumpEvents();
  if (decision.counted && debugging) log("Post count: " + std::to_string(decision.postCount));
}

}  // namespace telvo
