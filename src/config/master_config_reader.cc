#include "config/master_config_reader.h"

#include <cmath>
#include <limits>
#include <type_traits>
#include <variant>

#include "encoding/json_text.h"

namespace telvo {

namespace {

const char kDefaultSection[] = "default";
const char kDefaultUserIdHash[] = "517telvoUID517";

// Identifies a value in error messages: its key and the section holding it.
struct Origin {
  std::string_view key;
  std::string_view section;
};

[[noreturn]] void fail(const Origin& origin, std::string_view problem) {
  std::string message = "TelvoMasterConfig: \"";
  message.append(origin.key).append("\" in section \"").append(origin.section).append("\" ");
  message.append(problem);
  throw UsageError(message);
}

[[noreturn]] void failType(const Origin& origin, const Json& value, const char* expected) {
  std::string problem = "is ";
  problem.append(value.is_null() ? "null" : value.type_name()).append(", ").append(expected);
  problem.append(" expected");
  fail(origin, problem);
}

bool isWhiteSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Leading white space, an optional sign, then decimal digits up to the first
// other character; no digits gives 0. Out-of-range values saturate, as the
// platform's text scanning does.
std::int64_t integerFromText(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size() && isWhiteSpace(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  const std::uint64_t limit =
      negative ? std::uint64_t{1} << 63 : std::uint64_t(std::numeric_limits<std::int64_t>::max());
  std::uint64_t magnitude = 0;
  for (; i < text.size() && isDigit(text[i]); ++i) {
    const auto digit = static_cast<std::uint64_t>(text[i] - '0');
    magnitude = magnitude > (limit - digit) / 10 ? limit : magnitude * 10 + digit;
  }
  if (!negative) return static_cast<std::int64_t>(magnitude);
  return magnitude == limit ? std::numeric_limits<std::int64_t>::min()
                            : -static_cast<std::int64_t>(magnitude);
}

// The integer part of a JSON number, saturated to the 64-bit range.
std::int64_t integerFromNumber(const Json& value) {
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
  if (value.is_number_unsigned()) {
    const auto n = value.get<std::uint64_t>();
    return n > std::uint64_t(kMax) ? kMax : static_cast<std::int64_t>(n);
  }
  if (value.is_number_integer()) return value.get<std::int64_t>();
  const double d = value.get<double>();
  if (std::isnan(d)) return 0;
  if (d >= 9223372036854775808.0) return kMax;
  if (d <= -9223372036854775808.0) return kMin;
  return static_cast<std::int64_t>(d);  // truncates toward zero
}

// JSON booleans are numbers to the reader (true is 1), as they are to the
// document's producers.
std::int64_t readInteger(const Json& value, const Origin& origin) {
  if (value.is_boolean()) return value.get<bool>() ? 1 : 0;
  if (value.is_number()) return integerFromNumber(value);
  if (value.is_string()) return integerFromText(value.get_ref<const std::string&>());
  failType(origin, value, "an integer");
}

std::int32_t readInt32(const Json& value, const Origin& origin) {
  const std::int64_t n = readInteger(value, origin);
  if (n > std::numeric_limits<std::int32_t>::max()) return std::numeric_limits<std::int32_t>::max();
  if (n < std::numeric_limits<std::int32_t>::min()) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(n);
}

bool readTruth(const Json& value, const Origin& origin) {
  if (value.is_boolean()) return value.get<bool>();
  if (value.is_number_float()) return value.get<double>() != 0.0;
  if (value.is_number()) return integerFromNumber(value) != 0;
  if (value.is_string()) return encoding::truthFromText(value.get_ref<const std::string&>());
  failType(origin, value, "a truth value");
}

// A null text setting holds no text and is stored as unset.
std::optional<std::string> readText(const Json& value, const Origin& origin) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_null()) return std::nullopt;
  failType(origin, value, "text");
}

// A JSON null for a text setting is stored as it is: unset text, marked.
void markNull(TelvoMasterConfig::Settings& config, const std::string& property, const Json& value) {
  if (value.is_null()) {
    config.nullTexts.insert(property);
  } else {
    config.nullTexts.erase(property);
  }
}

const std::string& requireText(const Json& value, const Origin& origin) {
  if (!value.is_string()) failType(origin, value, "text");
  return value.get_ref<const std::string&>();
}

std::string toLower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

// A section must be an object; the document's producer made a mistake otherwise.
const Json* sectionOf(const Json& document, const std::string& name) {
  auto it = document.find(name);
  if (it == document.end()) return nullptr;
  if (!it->is_object()) {
    throw UsageError("TelvoMasterConfig: section \"" + name + "\" is " +
                     (it->is_null() ? "null" : it->type_name()) + ", an object expected");
  }
  return &*it;
}

template <class... Fs>
struct Overloaded : Fs... {
  using Fs::operator()...;
};
template <class... Fs>
Overloaded(Fs...) -> Overloaded<Fs...>;

}  // namespace

std::shared_ptr<TelvoMasterConfig> MasterConfigReader::read(
    const std::optional<Json>& document, const std::optional<std::string>& environment) {
  TelvoMasterConfig::Settings config;
  // Anything but an object (nothing, null, an array...) has no sections.
  const bool hasSections = document && document->is_object();
  readDefaultSection(config, hasSections ? sectionOf(*document, kDefaultSection) : nullptr);

  if (hasSections && environment && *environment != kDefaultSection) {
    if (const Json* overlay = sectionOf(*document, *environment)) {
      for (const auto& [key, value] : overlay->items()) {
        setValueForKey(config, key, value, *environment);
      }
    }
  }
  return std::make_shared<TelvoMasterConfig>(std::move(config));
}

namespace {

// The setting `key` of the default section, or null when it has none.
const Json* defaultSetting(const Json* section, const char* key) {
  if (!section) return nullptr;
  auto it = section->find(key);
  return it == section->end() ? nullptr : &*it;
}

void readIntegerSetting(const Json* section, const char* key, std::int64_t& field) {
  if (const Json* value = defaultSetting(section, key)) {
    field = readInteger(*value, Origin{key, kDefaultSection});
  }
}

void readTextSetting(TelvoMasterConfig::Settings& config, const Json* section, const char* key,
                     std::optional<std::string>& field) {
  if (const Json* value = defaultSetting(section, key)) {
    field = readText(*value, Origin{key, kDefaultSection});
    markNull(config, key, *value);
  }
}

}  // namespace

void MasterConfigReader::readDefaultSection(TelvoMasterConfig::Settings& config,
                                            const Json* section) {
  // Each setting is read in its turn, so the first bad value is the one reported.
  auto integer = [&](const char* key, std::int64_t& field) {
    readIntegerSetting(section, key, field);
  };
  auto text = [&](const char* key, std::optional<std::string>& field) {
    readTextSetting(config, section, key, field);
  };

  // Only the exact word selects timer batching; anything else, or nothing, counts.
  config.batchMode = 1;
  if (const Json* value = defaultSetting(section, "batchMode")) {
    config.batchMode = requireText(*value, Origin{"batchMode", kDefaultSection}) == "timer" ? 0 : 1;
  }
  integer("batchModeAmount", config.batchAmount);
  text("servicesUrl", config.servicesUrl);
  if (const Json* value = defaultSetting(section, "enabled")) {
    config.enabled = readTruth(*value, Origin{"enabled", kDefaultSection});
  }
  text("batchApi", config.batchApi);
  text("helloApi", config.helloApi);
  text("batchContentEncoding", config.batchContentEncoding);
  integer("helloRetryCount", config.helloRetryCount);
  integer("helloRetryTime", config.helloRetryTime);
  text("transportFormats", config.transportFormats);
  integer("qosUpdateInterval", config.qosUpdateInterval);
  integer("qosReportInterval", config.qosReportInterval);
  integer("progressReportInterval", config.progressReportInterval);
  integer("adProgressInterval", config.adProgressInterval);
  // "messageExcludes" is deliberately not read here: only an environment sets it.

  // Any text that mentions "false" (in any case) disables the identifier;
  // every other text, including "no" and "", leaves it on.
  config.telvoUserIdEnabled = true;
  if (const Json* value = defaultSetting(section, "telvoUserIdEnabled")) {
    const Origin origin{"telvoUserIdEnabled", kDefaultSection};
    config.telvoUserIdEnabled =
        toLower(requireText(*value, origin)).find("false") == std::string::npos;
  }

  const Json* hash = defaultSetting(section, "telvoUserIdHash");
  readTextSetting(config, section, "telvoUserIdHash", config.telvoUserIdHash);
  if (config.telvoUserIdEnabled && !hash) config.telvoUserIdHash = kDefaultUserIdHash;
}

void MasterConfigReader::setValueForKey(TelvoMasterConfig::Settings& config, const std::string& name,
                                        const Json& value, const std::string& section) {
  using C = TelvoMasterConfig::Settings;
  using Store = std::variant<std::int32_t C::*, std::int64_t C::*, bool C::*,
                             std::optional<std::string> C::*>;
  struct Property {
    const char* name;
    Store store;
  };
  // Environment sections name properties, not document keys ("batchAmount",
  // not "batchModeAmount"); "batchMode" is a number here, not the "timer" word.
  static const Property kProperties[] = {
      {"batchMode", &C::batchMode},
      {"batchAmount", &C::batchAmount},
      {"servicesUrl", &C::servicesUrl},
      {"enabled", &C::enabled},
      {"batchApi", &C::batchApi},
      {"helloApi", &C::helloApi},
      {"batchContentEncoding", &C::batchContentEncoding},
      {"helloRetryCount", &C::helloRetryCount},
      {"helloRetryTime", &C::helloRetryTime},
      {"messageExcludes", &C::messageExcludes},
      {"transportFormats", &C::transportFormats},
      {"qosUpdateInterval", &C::qosUpdateInterval},
      {"qosReportInterval", &C::qosReportInterval},
      {"progressReportInterval", &C::progressReportInterval},
      {"adProgressInterval", &C::adProgressInterval},
      {"telvoUserIdEnabled", &C::telvoUserIdEnabled},
      {"telvoUserIdHash", &C::telvoUserIdHash},
  };
  const Origin origin{name, section};
  for (const Property& property : kProperties) {
    if (name != property.name) continue;
    std::visit(
        Overloaded{
            [&](std::int32_t C::*field) { config.*field = readInt32(value, origin); },
            [&](std::int64_t C::*field) { config.*field = readInteger(value, origin); },
            [&](bool C::*field) { config.*field = readTruth(value, origin); },
            [&](std::optional<std::string> C::*field) {
              config.*field = readText(value, origin);
              markNull(config, name, value);
            },
        },
        property.store);
    return;
  }
  fail(origin, "is not a TelvoMasterConfig property");
}

}  // namespace telvo
