#include "delivery/batch_payload.h"

#include "core/json_text.h"

namespace telvo {
namespace core {

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
    if (event.dataIsClientJson()) {
      out += event.data();
    } else {
      Json parsed = Json::parse(event.data(), nullptr, /*allow_exceptions=*/false);
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

}  // namespace core
}  // namespace telvo
