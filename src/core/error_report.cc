// Error reports: posted at once, built on the background queue.
#include "core/json_text.h"
#include "telvo/envelope.h"
#include "telvo/log.h"
#include "telvo/telvo.h"
#include "telvo/url.h"

namespace telvo {

void Telvo::sendError(Json code, std::optional<Json> details) {
  if (details && !details->is_object()) {
    throw UsageError(std::string("Telvo::sendError: details must be a JSON object, not ") +
                     details->type_name());
  }
  if (!_initialized.load(std::memory_order_acquire)) return;
  if (code.is_null()) {
    log("Telvo: error report dropped: its error code is null");
    return;
  }
  if (debug()) log("Reporting error: " + core::dumpJson(code));
  _backgroundQueue->post(
      [self = shared_from_this(), code = std::move(code), details = std::move(details)] {
        try {
          self->postErrorReport(code, details);
        } catch (const std::exception& e) {
          log(std::string("Telvo: error report dropped: ") + e.what());
        }
      });
}

void Telvo::postErrorReport(const Json& code, const std::optional<Json>& details) {
  const auto [currentConfig, master, session] = snapshot();
  if (!currentConfig || !currentConfig->appName()) {
    log("Telvo: error report dropped: the configuration has no appName");
    return;
  }
  Json data = Json::object();
  data["applicationName"] = *currentConfig->appName();
  data["timestamp"] = static_cast<std::int64_t>(serviceMilliseconds());
  data["errorCode"] = code;
  if (details) {
    for (const auto& [key, value] : details->items()) data[key] = value;  // details win
  }
  Json payload = Json::object();
  payload["sessionId"] = *session;
  payload["data"] = std::move(data);
  const std::string json = core::dumpJson(payload);
  if (debug()) log("Payload: " + json);

  std::optional<std::string> servicesUrl;
  if (master) servicesUrl = master->servicesUrl();
  _transport->sendRequest(
      envelopeRequest(core::textOrNull(servicesUrl) + "/api/postEvent/error", json), 3,
      shared_from_this());
}

}  // namespace telvo
