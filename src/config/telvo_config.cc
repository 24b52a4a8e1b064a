#include "telvo/telvo_config.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "config/event_names.h"
#include "encoding/json_text.h"
#include "encoding/utf8.h"
#include "telvo/device.h"
#include "telvo/log.h"

namespace telvo {

std::string TelvoConfigBaseURL = "https://cdn.telvo.net/mdrv/telvo/config/";
std::string TelvoConfigFile = "telvoanalytics.json";
const double TelvoVersionNumber = 1.0;
const unsigned char TelvoVersionString[] = "@(#)PROGRAM:Telvo  PROJECT:Telvo-1\n";

namespace {

const char kInitErrorPrefix[] = "TELVO INIT ERROR: TelvoConfig is missing value for \"";

// A value counts as present whatever it holds, null included; the caller
// decides what an absent key means.
const Json* lookup(const Json& dictionary, const char* key) {
  if (!dictionary.is_object()) return nullptr;
  auto it = dictionary.find(key);
  return it == dictionary.end() ? nullptr : &*it;
}

// Text settings: a null placeholder is present but holds no text (the
// caller marks it); anything other than text or null is the host's mistake.
std::optional<std::string> textValue(const Json& value, const char* key) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_null()) return std::nullopt;
  throw UsageError(std::string("TelvoConfig: value for \"") + key + "\" must be text, not " +
                   value.type_name());
}

// A JSON null shows as "<null>", an unset value as "(null)".
std::string shown(const TelvoConfig& config, const char* property,
                  const std::optional<std::string>& value) {
  return encoding::textOrNull(value, config.holdsNull(property));
}

}  // namespace

TelvoConfig::TelvoConfig(std::optional<std::string> platform,
                         std::optional<std::string> platformVersion,
                         std::optional<std::string> site, std::optional<std::string> appVersion,
                         std::optional<std::string> appName,
                         std::optional<std::string> configBaseURL)
    : _site(std::move(site)),
      _configBaseUrl(std::move(configBaseURL)),
      _appName(std::move(appName)),
      _appVersion(std::move(appVersion)),
      _platform(std::move(platform)),
      _platformVersion(std::move(platformVersion)) {}

std::shared_ptr<TelvoConfig> TelvoConfig::telvoConfigWithDictionary(const Json& dictionary) {
  if (!dictionary.is_object() && !dictionary.is_null()) {
    throw UsageError(std::string("TelvoConfig: settings must be a JSON object, not ") +
                     dictionary.type_name());
  }
  auto config = std::make_shared<TelvoConfig>();

  // Only the first missing key is reported; the partly filled record is dropped.
  auto missing = [](const char* key) {
    log(std::string(kInitErrorPrefix) + key + "\"");
    return std::shared_ptr<TelvoConfig>();
  };

  const Json* platform = lookup(dictionary, "platform");
  if (!platform) return missing("platform");
  config->_platform = textValue(*platform, "platform");
  if (platform->is_null()) config->_nullSettings.insert("platform");
  // The version always comes from the running system, never from the host's
  // settings: a stale "platformVersion" entry must not be reported.
  if (auto device = Device::currentDevice()) config->_platformVersion = device->systemVersion();

  const Json* site = lookup(dictionary, "site");
  if (!site) return missing("site");
  config->_site = textValue(*site, "site");
  if (site->is_null()) config->_nullSettings.insert("site");

  const Json* appVersion = lookup(dictionary, "appVersion");
  if (!appVersion) return missing("appVersion");
  config->_appVersion = textValue(*appVersion, "appVersion");
  if (appVersion->is_null()) config->_nullSettings.insert("appVersion");

  const Json* appName = lookup(dictionary, "appName");
  if (!appName) return missing("appName");
  config->_appName = textValue(*appName, "appName");
  if (appName->is_null()) config->_nullSettings.insert("appName");

  if (const Json* base = lookup(dictionary, "configBaseUrl")) {
    config->_configBaseUrl = textValue(*base, "configBaseUrl");
    if (base->is_null()) config->_nullSettings.insert("configBaseUrl");
  } else {
    config->_configBaseUrl = TelvoConfigBaseURL;
  }

  if (const Json* events = lookup(dictionary, "highPriorityEvents")) {
    if (!events->is_string()) {
      throw UsageError(
          std::string("TelvoConfig: value for \"highPriorityEvents\" must be text, not ") +
          events->type_name());
    }
    config->_highPriorityEvents = configuration::splitEventNames(events->get<std::string>());
  }
  return config;
}

std::string TelvoConfig::description() const {
  char identity[32];
  std::snprintf(identity, sizeof identity, "%p", static_cast<const void*>(this));
  std::string out = "TelvoConfig: ";
  out += identity;
  // One append each rather than a chain of temporaries.
  auto line = [&](const char* label, const char* property,
                  const std::optional<std::string>& value) {
    out += label;
    out += shown(*this, property, value);
  };
  line("\nSite: ", "site", _site);
  line("\nConfig Base URL: ", "configBaseUrl", _configBaseUrl);
  line("\nApp Name: ", "appName", _appName);
  line("\nApp Version: ", "appVersion", _appVersion);
  line("\nPlatform: ", "platform", _platform);
  line("\nPlatform Version:", "platformVersion", _platformVersion);
  return out;
}

std::optional<std::string> TelvoConfig::JSONString() const {
  // A fixed order keeps the output readable; readers must not rely on it.
  const std::pair<const char*, const std::optional<std::string>*> fields[] = {
      {"site", &_site},         {"configBaseUrl", &_configBaseUrl},
      {"appName", &_appName},   {"appVersion", &_appVersion},
      {"platform", &_platform}, {"platformVersion", &_platformVersion},
  };
  bool writable = true;
  std::string text = "{";
  for (const auto& [key, value] : fields) {
    if (text.size() > 1) text += ',';
    encoding::appendJsonString(text, key);
    text += ':';
    if (!*value && holdsNull(key)) {
      text += "null";
      continue;
    }
    if (!*value) {
      throw UsageError(std::string("TelvoConfig::JSONString: \"") + key + "\" is unset");
    }
    // Text that is not valid UTF-8 cannot be written as JSON.
    writable = writable && utf8::isValid(**value);
    encoding::appendJsonString(text, **value);
  }
  if (!writable) return std::nullopt;
  text += '}';
  return text;
}

}  // namespace telvo

namespace telvo {
namespace configuration {

std::vector<std::string> splitEventNames(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
  std::vector<std::string> names;
  std::string::size_type start = 0;
  for (;;) {
    auto comma = text.find(',', start);
    names.push_back(
        text.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return names;
}

}  // namespace configuration
}  // namespace telvo
