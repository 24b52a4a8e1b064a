// The spool (ClientOptions::spoolPath, with the retrying delivery): events
// and error reports wait on disk until they are delivered, and what an
// earlier run left there is posted once a session exists.
//
// An accepted event reaches the disk within kSpoolSeconds (or sooner, when a
// drain captures it); a crash or power cut loses at most what was accepted
// in that last interval. A record is forgotten once its post is delivered or
// given up on, so a post delivered just before a crash may be sent again.
#include <charconv>
#include <cstdio>

#include "core/telvo_impl.h"
#include "platform/schedule_once.h"
#include "delivery/batch_payload.h"
#include "encoding/field_text.h"
#include "encoding/json_text.h"
#include "telvo/log.h"

namespace telvo {

namespace {

constexpr double kSpoolSeconds = 1;
constexpr std::uint8_t kEventRecord = 0, kErrorRecord = 1;
// What one replay step reads at once.
constexpr std::size_t kReplayRecords = 1000, kReplayBytes = 1 << 20;

// An event as the spool keeps it: {"n": name, "d": data with its
// "timestamp", "t": stamp, "device": whether the stamp is still the
// device's clock}.
std::string eventRecord(std::string_view name, std::string_view data, std::int64_t stamp,
                        bool deviceClock) {
  std::string body = "{\"n\":";
  encoding::appendJsonString(body, name);
  body += ",\"d\":";
  body += data;
  body += ",\"t\":";
  char digits[32];
  body.append(digits, std::to_chars(digits, digits + sizeof digits, stamp).ptr);
  body += deviceClock ? ",\"device\":true}" : ",\"device\":false}";
  return body;
}

}  // namespace

bool Telvo::Impl::openSpool(std::string* error) {
  if (!options.retry || options.spoolPath.empty()) return true;
  delivery::FileSpoolOptions spoolOptions;
  spoolOptions.maxBytes = options.maxSpoolBytes;
  spool = delivery::openFileSpool(options.spoolPath, spoolOptions, error);
  if (!spool) return false;
  spoolLeftOver = spool->counts().records;
  return true;
}

void Telvo::Impl::scheduleSpoolPass() {
  std::weak_ptr<Telvo> weak = self();
  scheduleOnce(*platform.mainQueue, kSpoolSeconds, [weak] {
    auto client = weak.lock();
    if (!client) return;
    {
      std::lock_guard<std::mutex> lock(client->_impl->pendingMutex);
      client->_impl->spoolPassScheduled = false;
    }
    client->_impl->drainPendingEvents();
  });
}

void Telvo::Impl::spoolPending() {
  const bool ready = initialized.load(std::memory_order_acquire);
  const std::string session = ready ? encoding::dumpJson(*snapshot().session) : std::string();
  std::vector<delivery::SpooledRecord> records;
  std::vector<std::size_t> positions;
  {
    std::lock_guard<std::mutex> lock(pendingMutex);
    std::string data;
    for (std::size_t i = 0; i < pending.size(); ++i) {
      const PendingEvent& event = pending[i];
      if (event.spoolSequence != 0) continue;
      data.clear();
      std::string_view name = event.name;
      if (event.fields) {
        name = std::string_view(pendingText).substr(event.textOffset, event.nameLength);
        data = "{\"timestamp\":" + std::to_string(wholeMilliseconds(event.stamp));
        data.append(pendingText, event.textOffset + event.nameLength, event.membersLength);
        data += '}';
      } else if (event.data) {
        if (!encoding::appendEventData(data, *event.data, wholeMilliseconds(event.stamp))) continue;
      } else {
        data = "null";  // no data: the capture gives it the appName
      }
      delivery::SpooledRecord record;
      record.kind = kEventRecord;
      record.session = event.early ? std::string() : session;
      record.body = eventRecord(name, data, wholeMilliseconds(event.stamp), event.early);
      records.push_back(std::move(record));
      positions.push_back(i);
    }
  }
  if (records.empty()) return;
  // Written without the lock: callers go on meanwhile, only appending (no
  // drain runs, drainMutex is held), so the positions stay right. In parts
  // of at most a quarter of the bound, since one write is kept whole or not
  // at all, and the bound drops the oldest parts first.
  const std::size_t partBytes = std::max<std::size_t>(options.maxSpoolBytes / 4, 1);
  std::size_t failed = 0;
  for (std::size_t begin = 0; begin < records.size();) {
    std::size_t end = begin, bytes = 0;
    while (end < records.size() && (end == begin || bytes + records[end].body.size() +
                                                            records[end].session.size() <=
                                                        partBytes)) {
      bytes += records[end].body.size() + records[end].session.size();
      ++end;
    }
    std::vector<delivery::SpooledRecord> part(std::make_move_iterator(records.begin() + begin),
                                              std::make_move_iterator(records.begin() + end));
    if (spool->append(part)) {
      counters.spooled.add(part.size());
      std::lock_guard<std::mutex> lock(pendingMutex);
      for (std::size_t k = 0; k < part.size(); ++k) {
        pending[positions[begin + k]].spoolSequence = part[k].sequence;
      }
    } else {
      failed += part.size();
    }
    begin = end;
  }
  if (failed > 0) {
    log("Telvo: " + std::to_string(failed) +
        " event(s) could not be written to the spool; they wait in memory only");
  }
}

std::uint64_t Telvo::Impl::spoolErrorReport(const std::string& session, const std::string& json) {
  if (!spool) return 0;
  std::vector<delivery::SpooledRecord> records(1);
  records[0].kind = kErrorRecord;
  records[0].session = session;
  records[0].body = json;
  if (!spool->append(records)) return 0;
  counters.spooled.add();
  return records[0].sequence;
}

void Telvo::Impl::forget(const std::vector<std::uint64_t>& sequences) {
  if (!spool || sequences.empty()) return;
  if (!spool->acknowledge(sequences)) {
    log("Telvo: the spool could not note " + std::to_string(sequences.size()) +
        " delivered record(s); they may be sent again after a restart");
  }
}

void Telvo::Impl::replaySpool() {
  if (!spool || spoolLeftOver == 0) return;
  const Snapshot current = snapshot();
  const Locations at = locations(current.master.get());
  const double delta = timeStampDelta.load(std::memory_order_acquire);
  std::uint64_t after = 0, left = spoolLeftOver;
  std::uint64_t replayedRecords = 0, replayedEvents = 0, corrupt = 0;
  while (left > 0) {
    auto records = spool->read(after, std::min<std::uint64_t>(left, kReplayRecords), kReplayBytes);
    if (records.empty()) break;
    after = records.back().sequence;
    left -= std::min<std::uint64_t>(left, records.size());
    // Consecutive events of one session make one flush; error reports go
    // as they were built.
    std::deque<delivery::QueuedEvent> events;
    std::shared_ptr<const Json> session;
    std::vector<std::uint64_t> bad;
    auto flushGroup = [&] {
      for (std::size_t next = 0; next < events.size();) {
        const std::size_t from = next;
        auto part = delivery::BatchPayload::write(*session, events, next, options.maxPostBytes);
        next = part.next;
        std::vector<std::uint64_t> sequences;
        for (std::size_t i = from; i < next; ++i) sequences.push_back(events[i].spoolSequence());
        if (part.events == 0) {
          forget(sequences);
          continue;
        }
        post(delivery::BatchPayload::request(at.servicesUrl, at.batchApi, part.json), part.events,
             deliveries->begin(), std::move(sequences));
      }
      events.clear();
    };
    for (const auto& record : records) {
      if (record.kind == kErrorRecord) {
        flushGroup();
        post(delivery::ErrorPost::request(at.servicesUrl, record.body), 0, deliveries->begin(),
             {record.sequence});
        ++replayedRecords;
        continue;
      }
      // Events from before any session take the first one they meet.
      std::shared_ptr<const Json> recordSession = current.session;
      if (!record.session.empty()) {
        Json parsed = encoding::parseJson(record.session);
        if (parsed.is_discarded()) {
          bad.push_back(record.sequence);
          continue;
        }
        recordSession = std::make_shared<const Json>(std::move(parsed));
      }
      Json body = encoding::parseJson(record.body);
      if (!body.is_object() || !body["n"].is_string() || !body["t"].is_number() ||
          !(body["d"].is_object() || body["d"].is_null())) {
        bad.push_back(record.sequence);
        continue;
      }
      double stamp = body["t"].get<double>();
      Json data = std::move(body["d"]);
      if (body.value("device", false)) {
        stamp -= delta;  // the device's clock, corrected by this run's offset
        if (data.is_object()) data["timestamp"] = wholeMilliseconds(stamp);
      }
      if (data.is_null()) {
        const auto appName = applicationName(current.config.get());
        data = Json{{"applicationName", appName ? *appName : Json()}};
      }
      if (session && *session != *recordSession) flushGroup();
      session = recordSession;
      auto queued = delivery::QueuedEvent::make(body["n"].get<std::string>(),
                                                encoding::dumpJson(data), true, stamp, session);
      if (!queued) {
        bad.push_back(record.sequence);
        continue;
      }
      queued->setSpoolSequence(record.sequence);
      events.push_back(std::move(*queued));
      ++replayedRecords;
      ++replayedEvents;
    }
    flushGroup();
    corrupt += bad.size();
    forget(bad);
  }
  // Replayed events count as accepted in this run, so the counters add up.
  {
    std::lock_guard<std::mutex> lock(pendingMutex);
    counters.eventsAccepted.addLocked(replayedEvents);
  }
  counters.errorsAccepted.add(replayedRecords - replayedEvents);
  counters.replayed.add(replayedRecords);
  counters.spoolCorrupt.add(corrupt);
  log("Telvo: " + std::to_string(replayedRecords) + " record(s) from the spool sent again" +
      (corrupt ? "; " + std::to_string(corrupt) + " unreadable one(s) dropped" : std::string()));
}

}  // namespace telvo
