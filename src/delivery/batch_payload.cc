#include "delivery/batch_payload.h"

#include <algorithm>

#include "encoding/envelope_request.h"
#include "encoding/json_text.h"

namespace telvo {
namespace delivery {

using encoding::appendJsonString;
using encoding::dumpJson;

namespace {

void appendEvent(std::string& out, const QueuedEvent& event) {
  out += "{\"eventType\":";
  appendJsonString(out, event.name());
  out += ",\"eventData\":";
  if (event.dataIsCompactJson()) {
    out += event.data();
  } else {
    Json parsed = encoding::parseJson(event.data());
    if (parsed.is_object() || parsed.is_array()) {
      out += dumpJson(parsed);
    } else {
      out += "{}";
    }
  }
  out += '}';
}

}  // namespace

std::string BatchPayload::write(const Json& sessionId, const std::deque<QueuedEvent>& events) {
  return write(sessionId, events, 0, std::string::npos).json;
}

BatchPayload::Part BatchPayload::write(const Json& sessionId, const std::deque<QueuedEvent>& events,
                                       std::size_t from, std::size_t maxBytes) {
  const std::string session = dumpJson(sessionId);
  constexpr std::string_view kClose = "]}";
  std::size_t size = session.size() + 32;
  for (std::size_t i = from; i < events.size() && size <= maxBytes; ++i) {
    size += events[i].data().size() + events[i].name().size() + 32;
  }

  Part part;
  std::string& out = part.json;
  out.reserve(std::min(size, maxBytes));
  out += "{\"sessionId\":";
  out += session;
  out += ",\"events\":[";
  std::size_t i = from;
  for (; i < events.size(); ++i) {
    const std::size_t before = out.size();
    if (part.events > 0) out += ',';
    appendEvent(out, events[i]);
    if (out.size() + kClose.size() <= maxBytes) {
      ++part.events;
      continue;
    }
    out.resize(before);
    if (part.events > 0) break;  // the next part starts with it
    ++part.oversized;            // too large even alone
  }
  part.next = i;
  out += kClose;
  return part;
}

URLRequest BatchPayload::request(std::string_view servicesUrl, std::string_view batchApi,
                                 std::string_view payload) {
  return encoding::envelopeRequest(
      std::string(servicesUrl).append(batchApi).append(".json"), payload);
}

}  // namespace delivery
}  // namespace telvo
