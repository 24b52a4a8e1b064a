#include "telvo/telvo_master_config.h"

#include <cstdio>

#include "config/master_config_reader.h"
#include "encoding/json_text.h"

namespace telvo {

std::shared_ptr<TelvoMasterConfig> TelvoMasterConfig::configFromDictionary(
    const std::optional<Json>& document, const std::optional<std::string>& environment) {
  return MasterConfigReader::read(document, environment);
}

std::string TelvoMasterConfig::description() const {
  auto text = [this](const char* property, const std::optional<std::string>& value) {
    return encoding::textOrNull(value, holdsNull(property));
  };
  const Settings& s = _settings;
  auto number = [](std::int64_t value) { return std::to_string(value); };
  char identity[32];
  std::snprintf(identity, sizeof identity, "%p", static_cast<const void*>(this));
  // adProgressInterval and messageExcludes are carried for the host but not shown.
  return std::string("TelvoMasterConfig: ") + identity + "\nBatchMode: " + number(s.batchMode) +
         "\nBatchAmount: " + number(s.batchAmount) + "\nServicesUrl: " + text("servicesUrl", s.servicesUrl) +
         "\nEnabled: " + (s.enabled ? "1" : "0") + "\nBatch API: " + text("batchApi", s.batchApi) +
         "\nHello API: " + text("helloApi", s.helloApi) +
         "\nBatch Content Encoding: " + text("batchContentEncoding", s.batchContentEncoding) +
         "\nHello Retry Count: " + number(s.helloRetryCount) +
         "\nHello Retry Time: " + number(s.helloRetryTime) +
         "\nTransport Formats: " + text("transportFormats", s.transportFormats) +
         "\nQOS Update Interval: " + number(s.qosUpdateInterval) +
         "\nQOS Report Interval: " + number(s.qosReportInterval) +
         "\nProgress Report Interval: " + number(s.progressReportInterval) +
         "\nUser ID Hash: " + text("telvoUserIdHash", s.telvoUserIdHash) +
         "\nUser ID Enabled: " + (s.telvoUserIdEnabled ? "true" : "false");
}

}  // namespace telvo
