// TelvoMasterConfig: the server-side settings that steer a client, read from
// the configuration document's "default" section with the client's
// environment section laid over it. Read-only for users; immutable once made,
// so it may be read from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "telvo/types.h"

namespace telvo {

class TelvoMasterConfig {
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
  // and truth values. A JSON null for a text setting is stored as unset.
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

  // The multi-line description (no adProgressInterval, no messageExcludes).
  std::string description() const;

  std::int32_t batchMode() const { return _batchMode; }  // 0 timer batching, 1 count batching
  std::int64_t batchAmount() const {
    return _batchAmount;
  }  // events in count mode, seconds in timer mode
  const std::optional<std::string>& servicesUrl() const { return _servicesUrl; }
  bool enabled() const { return _enabled; }
  const std::optional<std::string>& batchApi() const { return _batchApi; }
  const std::optional<std::string>& helloApi() const { return _helloApi; }
  const std::optional<std::string>& batchContentEncoding() const { return _batchContentEncoding; }
  std::int64_t helloRetryCount() const { return _helloRetryCount; }
  std::int64_t helloRetryTime() const { return _helloRetryTime; }
  const std::optional<std::string>& messageExcludes() const { return _messageExcludes; }
  const std::optional<std::string>& transportFormats() const { return _transportFormats; }
  std::int64_t qosUpdateInterval() const { return _qosUpdateInterval; }
  std::int64_t qosReportInterval() const { return _qosReportInterval; }
  std::int64_t progressReportInterval() const { return _progressReportInterval; }
  std::int64_t adProgressInterval() const { return _adProgressInterval; }
  bool telvoUserIdEnabled() const { return _telvoUserIdEnabled; }
  const std::optional<std::string>& telvoUserIdHash() const { return _telvoUserIdHash; }

 private:
  TelvoMasterConfig() = default;
  friend struct MasterConfigReader;  // the document reader (implementation detail)

  std::int32_t _batchMode = 0;
  std::int64_t _batchAmount = 0;
  std::optional<std::string> _servicesUrl;
  bool _enabled = false;
  std::optional<std::string> _batchApi;
  std::optional<std::string> _helloApi;
  std::optional<std::string> _batchContentEncoding;
  std::int64_t _helloRetryCount = 0;
  std::int64_t _helloRetryTime = 0;
  std::optional<std::string> _messageExcludes;
  std::optional<std::string> _transportFormats;
  std::int64_t _qosUpdateInterval = 0;
  std::int64_t _qosReportInterval = 0;
  std::int64_t _progressReportInterval = 0;
  std::int64_t _adProgressInterval = 0;
  bool _telvoUserIdEnabled = false;
  std::optional<std::string> _telvoUserIdHash;
};

}  // namespace telvo
