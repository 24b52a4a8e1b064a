#include "delivery/error_post.h"

#include "encoding/envelope_request.h"
#include "encoding/json_text.h"

namespace telvo {
namespace delivery {

std::string ErrorPost::write(const Json& sessionId, const Json& applicationName,
                             std::int64_t timestamp, const Json& code,
                             const std::optional<Json>& details) {
  Json data = Json::object();
  data["applicationName"] = applicationName;
  data["timestamp"] = timestamp;
  data["errorCode"] = code;
  if (details && details->is_object()) {
    for (const auto& [key, value] : details->items()) data[key] = value;  // details win
  }
  Json payload = Json::object();
  payload["sessionId"] = sessionId;
  payload["data"] = std::move(data);
  return encoding::dumpJson(payload);
}

std::string ErrorPost::write(const Json& sessionId, const Json& applicationName,
                             std::int64_t timestamp, const Json& code,
                             const WrittenDetails& details) {
  // Every member is written with a comma in front; the first becomes the
  // object's opening brace.
  std::string data;
  if (!details.applicationName)
    data += ",\"applicationName\":" + encoding::dumpJson(applicationName);
  if (!details.timestamp) data += ",\"timestamp\":" + std::to_string(timestamp);
  if (!details.errorCode) data += ",\"errorCode\":" + encoding::dumpJson(code);
  data += details.members;
  if (data.empty()) {
    data = "{";
  } else {
    data[0] = '{';
  }
  data += '}';
  return "{\"sessionId\":" + encoding::dumpJson(sessionId) + ",\"data\":" + data + "}";
}

URLRequest ErrorPost::request(std::string_view servicesUrl, std::string_view payload) {
  return encoding::envelopeRequest(std::string(servicesUrl).append("/api/postEvent/error"),
                                   payload);
}

}  // namespace delivery
}  // namespace telvo
