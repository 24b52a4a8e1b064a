#include "telvo/telvo_master_config.h"

#include <cstdio>

#include "master_config_reader.h"

namespace telvo {

std::shared_ptr<TelvoMasterConfig> TelvoMasterConfig::configFromDictionary(
    const std::optional<Json>& document, const std::optional<std::string>& environment) {
  return MasterConfigReader::read(document, environment);
}

std::string TelvoMasterConfig::description() const {
  auto text = [](const std::optional<std::string>& value) -> const std::string& {
    static const std::string kNull = "(null)";
    return value ? *value : kNull;
  };
  auto number = [](std::int64_t value) { return std::to_string(value); };
  char identity[32];
  std::snprintf(identity, sizeof identity, "%p", static_cast<const void*>(this));
  // adProgressInterval and messageExcludes are carried for the host but not shown.
  return std::string("TelvoMasterConfig: ") + identity + "\nBatchMode: " + number(_batchMode) +
         "\nBatchAmount: " + number(_batchAmount) + "\nServicesUrl: " + text(_servicesUrl) +
         "\nEnabled: " + (_enabled ? "1" : "0") + "\nBatch API: " + text(_batchApi) +
         "\nHello API: " + text(_helloApi) +
         "\nBatch Content Encoding: " + text(_batchContentEncoding) +
         "\nHello Retry Count: " + number(_helloRetryCount) +
         "\nHello Retry Time: " + number(_helloRetryTime) +
         "\nTransport Formats: " + text(_transportFormats) +
         "\nQOS Update Interval: " + number(_qosUpdateInterval) +
         "\nQOS Report Interval: " + number(_qosReportInterval) +
         "\nProgress Report Interval: " + number(_progressReportInterval) +
         "\nUser ID Hash: " + text(_telvoUserIdHash) +
         "\nUser ID Enabled: " + (_telvoUserIdEnabled ? "true" : "false");
}

}  // namespace telvo
