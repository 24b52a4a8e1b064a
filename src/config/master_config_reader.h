// MasterConfigReader: turns a configuration document into a TelvoMasterConfig.
//
// The "default" section is read key by key with the document's own keys and
// conversions; the environment section is then laid over it by property name
// (the by-name assignment below). Pure functions of their arguments; safe to
// call from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "telvo/telvo_master_config.h"
#include "telvo/types.h"

namespace telvo {

struct MasterConfigReader {
  // See TelvoMasterConfig::configFromDictionary.
  static std::shared_ptr<TelvoMasterConfig> read(const std::optional<Json>& document,
                                                 const std::optional<std::string>& environment);

  // Stores `value` into the property called `name` (one of the seventeen
  // property names), converted to the property's type: integers and truth
  // values as in the "default" section, text unchanged, null text as unset.
  // Throws UsageError naming `name` and `section` for any other name, a null
  // integer or truth value, or a value of a type that cannot be read.
  static void setValueForKey(TelvoMasterConfig::Settings& config, const std::string& name, const Json& value,
                             const std::string& section);

 private:
  static void readDefaultSection(TelvoMasterConfig::Settings& config, const Json* section);
};

}  // namespace telvo
