#include "delivery/batch_payload.h"

#include "encoding/envelope_request.h"
#include "encoding/json_text.h"

namespace telvo {
namespace delivery {

using encoding::appendJsonString;
using encoding::dumpJson;

std::string BatchPayload::write(const Json& sessionId, const std::deque<QueuedEvent>& events) {
  const std::string session = dumpJson(sessionId);
  std::size_t size = session.size() + 32;
  for (const QueuedEvent& event : events) size += event.data().size() + event.name().size() + 32;

  std::string out;
  out.reserve(size);
  out += "{\"sessionId\":";
  out += session;
  out += ",\"events\":[";
  bool first = true;
  for (const QueuedEvent& event : events) {
    if (!first) out += ',';
    first = false;
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
  out += "]}";
  return out;
}

URLRequest BatchPayload::request(const std::optional<std::string>& servicesUrl,
                                 const std::optional<std::string>& batchApi,
                                 std::string_view payload) {
  return encoding::envelopeRequest(
      encoding::textOrNull(servicesUrl) + encoding::textOrNull(batchApi) + ".json", payload);
}

}  // namespace delivery
}  // namespace telvo
