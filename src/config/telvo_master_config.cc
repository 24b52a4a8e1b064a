#include "telvo/telvo_master_config.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "config/master_config_reader.h"
#include "encoding/json_text.h"

namespace telvo {

std::shared_ptr<TelvoMasterConfig> TelvoMasterConfig::configFromDictionary(
    const std::optional<Json>& document, const std::optional<std::string>& environment) {
  return MasterConfigReader::read(document, environment);
}

namespace {

// The description's lines, appended in place: one call each rather than a
// chain of temporaries.
void line(std::string& out, const char* label, std::string_view value) {
  out += '\n';
  out += label;
  out += value;
}

void line(std::string& out, const char* label, std::int64_t value) {
  char digits[24];
  const char* end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  line(out, label, std::string_view(digits, static_cast<std::size_t>(end - digits)));
}

}  // namespace

std::string TelvoMasterConfig::description() const {
  auto text = [this](const char* property, const std::optional<std::string>& value) {
    return encoding::textOrNull(value, holdsNull(property));
  };
  const Settings& s = _settings;
  char identity[32];
  std::snprintf(identity, sizeof identity, "%p", static_cast<const void*>(this));
  // adProgressInterval and messageExcludes are carried for the host but not shown.
  std::string out = "TelvoMasterConfig: ";
  out += identity;
  line(out, "BatchMode: ", s.batchMode);
  line(out, "BatchAmount: ", s.batchAmount);
  line(out, "ServicesUrl: ", text("servicesUrl", s.servicesUrl));
  line(out, "Enabled: ", s.enabled ? "1" : "0");
  line(out, "Batch API: ", text("batchApi", s.batchApi));
  line(out, "Hello API: ", text("helloApi", s.helloApi));
  line(out, "Batch Content Encoding: ", text("batchContentEncoding", s.batchContentEncoding));
  line(out, "Hello Retry Count: ", s.helloRetryCount);
  line(out, "Hello Retry Time: ", s.helloRetryTime);
  line(out, "Transport Formats: ", text("transportFormats", s.transportFormats));
  line(out, "QOS Update Interval: ", s.qosUpdateInterval);
  line(out, "QOS Report Interval: ", s.qosReportInterval);
  line(out, "Progress Report Interval: ", s.progressReportInterval);
  line(out, "User ID Hash: ", text("telvoUserIdHash", s.telvoUserIdHash));
  line(out, "User ID Enabled: ", s.telvoUserIdEnabled ? "true" : "false");
  return out;
}

}  // namespace telvo
