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
  std::shared_ptr<const TelvoConfig> currentConfig;
  std::shared_ptr<const TelvoMasterConfig> master;
  std::shared_ptr<const Json> session;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    currentConfig = _config;
    master = _masterConfig;
    session = _sessionID;
  }
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
  URLRequest request(
      URLWithURLStringConversion(core::textOrNull(servicesUrl) + "/api/postEvent/error"),
      kRequestCachePolicy, kRequestTimeout);
  request.HTTPMethod = "POST";
  request.setValue(kEnvelopeContentType, "Content-Type");
  request.setValue(kEnvelopeContentEncoding, "Content-Encoding");
  request.HTTPBody = buildTelvoJsonParameter(json);
  _transport->sendRequest(std::move(request), 3, shared_from_this());
}

}  // namespace telvo
