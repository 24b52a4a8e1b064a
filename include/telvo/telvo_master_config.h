// TelvoMasterConfig: the server-side settings that steer a client, read from
// the configuration document's "default" section with the client's
// environment section laid over it. Read-only for users; immutable once made,
// so it may be read from any thread.
#pragma once

#include "telvo/export.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "telvo/types.h"

namespace telvo {

class TELVO_API TelvoMasterConfig {
 public:
  // Reads `document`: its "default" section with the document keys, then,
  // when `environment` is given, is not "default" and names a section of the
  // document, that section by property name (so "batchAmount", not
  // "batchModeAmount"). Missing keys take their defaults: batchMode 1 (count
  // batching), integers 0, enabled false, text unset, telvoUserIdEnabled true
  // and then telvoUserIdHash "517telvoUID517"; "messageExcludes" is read from
  // the environment section only.
  //
  // Conversions: an integer comes from a JSON number (its integer part,
  // saturated), a boolean (1 or 0) or text (leading white space, optional
  // sign, digits up to the first other character; no digits gives 0). A truth
  // value comes from a boolean, a number (non-zero is true) or text (true when,
  // after white space and an optional sign with zeros, it begins with Y, y, T,
  // t or a digit 1-9). In "default", "batchMode" is text ("timer" exactly
  // selects 0) and "telvoUserIdEnabled" is text (false when it contains
  // "false" in any case); in an environment section both are plain integer
  // and truth values. A JSON null for a text setting is stored as it is
  // (holdsNull).
  //
  // Nothing, or a document that is not an object, reads as an empty document
  // and skips the overlay. Throws UsageError (naming the key and the section)
  // for an unknown property name in an environment section, a null for an
  // integer or truth value, a non-text "batchMode" or "telvoUserIdEnabled" in
  // "default", any value of a type that cannot be read as the setting (an
  // object where an integer is expected, a number where text is expected),
  // and a "default" or environment section that is not an object.
  static std::shared_ptr<TelvoMasterConfig> configFromDictionary(
      const std::optional<Json>& document, const std::optional<std::string>& environment);

  // The settings as plain values, one member per property. A reader of a
  // document fills them; a test may fill them itself.
  struct Settings {
    // 0 timer batching, 1 count batching.
    std::int32_t batchMode = 0;
    // Events in count mode, seconds in timer mode.
    std::int64_t batchAmount = 0;
    std::optional<std::string> servicesUrl;
    bool enabled = false;
    std::optional<std::string> batchApi;
    std::optional<std::string> helloApi;
    std::optional<std::string> batchContentEncoding;
    std::int64_t helloRetryCount = 0;
    std::int64_t helloRetryTime = 0;
    std::optional<std::string> messageExcludes;
    std::optional<std::string> transportFormats;
    std::int64_t qosUpdateInterval = 0;
    std::int64_t qosReportInterval = 0;
    std::int64_t progressReportInterval = 0;
    std::int64_t adProgressInterval = 0;
    bool telvoUserIdEnabled = false;
    std::optional<std::string> telvoUserIdHash;
    // The text properties the document set to JSON null ("telvoUserIdHash"...):
    // unset text, but present (see holdsNull).
    std::set<std::string> nullTexts;
  };

  explicit TelvoMasterConfig(Settings settings) : _settings(std::move(settings)) {}

  // The multi-line description (no adProgressInterval, no messageExcludes).
  std::string description() const;

  const Settings& settings() const { return _settings; }
  // True when the text property `property` holds a JSON null: its getter
  // reads as unset, but the value is present (a null telvoUserIdHash is sent
  // as "telvoUUIDToken": null) and the description shows "<null>".
  bool holdsNull(const std::string& property) const {
    return _settings.nullTexts.count(property) > 0;
  }
  std::int32_t batchMode() const { return _settings.batchMode; }
  std::int64_t batchAmount() const { return _settings.batchAmount; }
  const std::optional<std::string>& servicesUrl() const { return _settings.servicesUrl; }
  bool enabled() const { return _settings.enabled; }
  const std::optional<std::string>& batchApi() const { return _settings.batchApi; }
  const std::optional<std::string>& helloApi() const { return _settings.helloApi; }
  const std::optional<std::string>& batchContentEncoding() const { return _settings.batchContentEncoding; }
  std::int64_t helloRetryCount() const { return _settings.helloRetryCount; }
  std::int64_t helloRetryTime() const { return _settings.helloRetryTime; }
  const std::optional<std::string>& messageExcludes() const { return _settings.messageExcludes; }
  const std::optional<std::string>& transportFormats() const { return _settings.transportFormats; }
  std::int64_t qosUpdateInterval() const { return _settings.qosUpdateInterval; }
  std::int64_t qosReportInterval() const { return _settings.qosReportInterval; }
  std::int64_t progressReportInterval() const { return _settings.progressReportInterval; }
  std::int64_t adProgressInterval() const { return _settings.adProgressInterval; }
  bool telvoUserIdEnabled() const { return _settings.telvoUserIdEnabled; }
  const std::optional<std::string>& telvoUserIdHash() const { return _settings.telvoUserIdHash; }

 private:
  Settings _settings;
};

}  // namespace telvo
