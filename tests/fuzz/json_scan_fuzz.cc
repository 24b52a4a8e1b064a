// The collector's tree-less JSON check against nlohmann::json's parser on
// arbitrary UTF-8 text: both accept the same texts (within the depth bound),
// and the walks over an accepted text find the members the parser finds.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

#include "collector/json_scan.h"
#include "encoding/json_text.h"
#include "encoding/utf8.h"
#include "telvo/types.h"

namespace {

using telvo::Json;
using namespace telvo::tool;

// The walks agree with the parsed value at every level.
void compare(std::string_view text, JsonSpan span, const Json& value) {
  switch (kindOf(text, span)) {
    case JsonKind::kObject: {
      if (!value.is_object()) std::abort();
      std::size_t members = 0;
      std::map<std::string, int> seen;
      forEachMember(text, span, [&](std::string_view name, JsonSpan) {
        ++members;
        if (!value.contains(decodeName(name))) std::abort();
        ++seen[decodeName(name)];
      });
      // A name given twice keeps its last value in the parser: only the
      // others are compared deeper.
      forEachMember(text, span, [&](std::string_view name, JsonSpan member) {
        const std::string key = decodeName(name);
        if (seen[key] == 1) compare(text, member, value[key]);
      });
      if (members < value.size()) std::abort();
      break;
    }
    case JsonKind::kArray: {
      if (!value.is_array()) std::abort();
      std::size_t i = 0;
      forEachElement(text, span, [&](JsonSpan element) {
        if (i >= value.size()) std::abort();
        compare(text, element, value[i++]);
      });
      if (i != value.size()) std::abort();
      break;
    }
    case JsonKind::kString:
      if (!value.is_string() || decodeString(text, span) != value.get<std::string>()) std::abort();
      break;
    case JsonKind::kNumber:
      if (!value.is_number()) std::abort();
      break;
    case JsonKind::kTrue:
    case JsonKind::kFalse:
      if (!value.is_boolean()) std::abort();
      break;
    case JsonKind::kNull:
      if (!value.is_null()) std::abort();
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (!telvo::utf8::isValid(text)) return 0;  // the envelope checks UTF-8 before
  JsonLimits limits;
  limits.maxDepth = telvo::encoding::kMaxJsonDepth;
  limits.maxMembers = 1 << 30;
  JsonSpan span;
  const bool checked = checkJson(text, limits, &span).empty();
  // The parser takes a NUL byte for the end of its input; the check refuses it.
  if (text.find('\0') != std::string_view::npos) return 0;
  if (!telvo::encoding::withinJsonDepth(text)) {
    if (checked) std::abort();
    return 0;
  }
  Json parsed;
  try {
    parsed = Json::parse(text);
  } catch (const Json::out_of_range&) {
    return 0;  // a number too large for a double: the check does not weigh numbers
  } catch (const std::exception&) {
    if (checked) std::abort();
    return 0;
  }
  if (!checked) std::abort();
  compare(text, span, parsed);
  return 0;
}
