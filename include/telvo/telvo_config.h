// TelvoConfig: how the host application describes itself to the library.
//
// A plain record: the host builds it field by field or from a settings
// dictionary, hands it to Telvo::create, and the client keeps it for its whole
// life (setting configURL on it once). Setters replace the stored value;
// nothing is validated or copied. Not synchronised: fill it in before handing
// it to a client.
#pragma once

#include "telvo/export.h"

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "telvo/types.h"
#include "telvo/url.h"

namespace telvo {

// Default base of the configuration location (an HTTPS location whose path is
// "/mdrv/telvo/config/"). The host may reassign it before making configurations.
extern TELVO_API std::string TelvoConfigBaseURL;
// Name of the configuration document in each site's folder: "telvoanalytics.json".
extern TELVO_API std::string TelvoConfigFile;
// 1.0
extern TELVO_API const double TelvoVersionNumber;
// "@(#)PROGRAM:Telvo  PROJECT:Telvo-1" followed by a line feed.
extern TELVO_API const unsigned char TelvoVersionString[];

class TELVO_API TelvoConfig {
 public:
  // Every property unset, batchDisabled false.
  TelvoConfig() = default;
  // Stores the six arguments unchanged (absent stays absent; no default base,
  // no lookup of the platform version).
  TelvoConfig(std::optional<std::string> platform, std::optional<std::string> platformVersion,
              std::optional<std::string> site, std::optional<std::string> appVersion,
              std::optional<std::string> appName, std::optional<std::string> configBaseURL);

  // Builds a record from the host's settings: "platform", "site",
  // "appVersion" and "appName" are required (any non-absent value counts,
  // including "" and null); "configBaseUrl" falls back to TelvoConfigBaseURL
  // as it stands at the call; "highPriorityEvents" is a comma-separated text
  // (every U+0020 blank removed, then split at each "," with empty names
  // kept; a text without a comma is a one-name list). The platform version
  // always comes from Device::currentDevice(), never from the settings.
  //
  // A missing required key writes "TELVO INIT ERROR: TelvoConfig is missing
  // value for \"<key>\"" to the log, whatever any debug setting, and gives
  // nothing; only the first missing key (in the order platform, site,
  // appVersion, appName) is reported. A JSON null for a text setting counts
  // as present and is stored as it is (see holdsNull). Throws UsageError,
  // naming the key, for
  // a value that is neither text nor null (and for a null
  // "highPriorityEvents"), and for settings that are neither an object nor
  // null; null settings read as an empty object.
  static std::shared_ptr<TelvoConfig> telvoConfigWithDictionary(const Json& dictionary);

  // "TelvoConfig: <address>\nSite: ...\nConfig Base URL: ...\nApp Name: ...\n
  // App Version: ...\nPlatform: ...\nPlatform Version:..." with "(null)" for
  // unset values and "<null>" for settings that hold a JSON null.
  std::string description() const;

  // The six identity fields (site, configBaseUrl, appName, appVersion,
  // platform, platformVersion) as one line of compact JSON (a setting that
  // holds a JSON null is written as null); nothing when a value is not valid
  // UTF-8. Throws UsageError when one of them is unset.
  std::optional<std::string> JSONString() const;

  const std::optional<std::string>& site() const { return _site; }
  void setSite(std::optional<std::string> value) {
    _site = std::move(value);
    _nullSettings.erase("site");
  }
  const std::optional<std::string>& configBaseUrl() const { return _configBaseUrl; }
  void setConfigBaseUrl(std::optional<std::string> value) {
    _configBaseUrl = std::move(value);
    _nullSettings.erase("configBaseUrl");
  }
  const std::optional<std::string>& appName() const { return _appName; }
  void setAppName(std::optional<std::string> value) {
    _appName = std::move(value);
    _nullSettings.erase("appName");
  }
  const std::optional<std::string>& appVersion() const { return _appVersion; }
  void setAppVersion(std::optional<std::string> value) {
    _appVersion = std::move(value);
    _nullSettings.erase("appVersion");
  }
  const std::optional<std::string>& platform() const { return _platform; }
  void setPlatform(std::optional<std::string> value) {
    _platform = std::move(value);
    _nullSettings.erase("platform");
  }
  const std::optional<std::string>& platformVersion() const { return _platformVersion; }
  void setPlatformVersion(std::optional<std::string> value) {
    _platformVersion = std::move(value);
    _nullSettings.erase("platformVersion");
  }
  // True when the setting `property` ("site", "appName"...) holds a JSON
  // null: the settings gave null for it. Its getter reads as unset, but the
  // value counts as present: the hello and the events carry it as null, and
  // the location and description show "<null>". Setting the property clears
  // the mark.
  bool holdsNull(const std::string& property) const { return _nullSettings.count(property) > 0; }

  bool batchDisabled() const { return _batchDisabled; }
  void setBatchDisabled(bool value) { _batchDisabled = value; }
  const std::optional<URL>& configURL() const { return _configURL; }
  void setConfigURL(std::optional<URL> value) { _configURL = std::move(value); }
  const std::optional<std::vector<std::string>>& highPriorityEvents() const {
    return _highPriorityEvents;
  }
  void setHighPriorityEvents(std::optional<std::vector<std::string>> value) {
    _highPriorityEvents = std::move(value);
  }

 private:
  std::optional<std::string> _site;
  std::optional<std::string> _configBaseUrl;
  std::optional<std::string> _appName;
  std::optional<std::string> _appVersion;
  std::optional<std::string> _platform;
  std::optional<std::string> _platformVersion;
  bool _batchDisabled = false;
  std::optional<URL> _configURL;
  std::optional<std::vector<std::string>> _highPriorityEvents;
  std::set<std::string> _nullSettings;  // text settings that hold a JSON null
};

}  // namespace telvo
