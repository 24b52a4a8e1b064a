// JSON read by the collector without building a tree: one pass checks that a
// text is JSON within given bounds; walks over the checked text then find
// the members a caller needs and say where each value lies. Nothing is
// copied but the few texts a caller decodes, and the check holds one small
// record per level of nesting, however large or wide the document.
//
// The checks are those of RFC 8259 (as nlohmann::json parses it): literals,
// numbers, strings with their escapes (a \u escape of a surrogate must be a
// high one followed by a low one), no control characters in strings. The
// text is taken to be valid UTF-8 already (the envelope checks it).
//
// Pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace telvo::tool {

struct JsonLimits {
  // Arrays and objects nested deeper than this are refused.
  std::size_t maxDepth = 128;
  // An array with more elements, or an object with more members, is refused.
  std::size_t maxMembers = 100000;
};

// Where one value lies in a text: [begin, end).
struct JsonSpan {
  std::size_t begin = 0;
  std::size_t end = 0;
  std::size_t size() const { return end - begin; }
};

// Checks that `text` holds exactly one JSON value (white space around it, and
// a UTF-8 byte-order mark before it, are allowed) within `limits`. Empty on success, with `*value` set to where the
// value lies; otherwise one line saying what is wrong and at which byte.
std::string checkJson(std::string_view text, const JsonLimits& limits, JsonSpan* value);

// The kind of the checked value at `span`, from its first character.
enum class JsonKind { kObject, kArray, kString, kNumber, kTrue, kFalse, kNull };
JsonKind kindOf(std::string_view text, JsonSpan span);

// The members of the checked object at `span`, in order: `visit(name, value)`
// with the member's name as it is written (between the quotes, escapes not
// decoded) and where its value lies. The walk skips over nested values, so
// it costs one pass over the object's text.
template <typename Visit>
void forEachMember(std::string_view text, JsonSpan span, Visit&& visit);

// The elements of the checked array at `span`, in order: `visit(value)`.
template <typename Visit>
void forEachElement(std::string_view text, JsonSpan span, Visit&& visit);

// The text of the checked string at `span` (quotes included), its escapes
// decoded.
std::string decodeString(std::string_view text, JsonSpan span);
// The same for a name as forEachMember hands it out (without quotes).
std::string decodeName(std::string_view written);

// A whole number of milliseconds from the checked number at `span`: integers
// as they are, fractions rounded; nothing for numbers no 64-bit integer holds
// (nor beyond +-9e18).
std::optional<std::int64_t> wholeMilliseconds(std::string_view text, JsonSpan span);

namespace json_scan_detail {
std::size_t skipWhiteSpace(std::string_view text, std::size_t at);
// The end of the checked value beginning at `at`.
std::size_t skipValue(std::string_view text, std::size_t at);
}  // namespace json_scan_detail

template <typename Visit>
void forEachMember(std::string_view text, JsonSpan span, Visit&& visit) {
  using namespace json_scan_detail;
  std::size_t at = skipWhiteSpace(text, span.begin + 1);
  while (at < span.end && text[at] == '"') {
    const std::size_t nameEnd = skipValue(text, at);
    const std::string_view name = text.substr(at + 1, nameEnd - at - 2);
    at = skipWhiteSpace(text, nameEnd) + 1;  // past ':'
    at = skipWhiteSpace(text, at);
    const std::size_t valueEnd = skipValue(text, at);
    visit(name, JsonSpan{at, valueEnd});
    at = skipWhiteSpace(text, valueEnd);
    if (at < span.end && text[at] == ',') at = skipWhiteSpace(text, at + 1);
  }
}

template <typename Visit>
void forEachElement(std::string_view text, JsonSpan span, Visit&& visit) {
  using namespace json_scan_detail;
  std::size_t at = skipWhiteSpace(text, span.begin + 1);
  while (at < span.end && text[at] != ']') {
    const std::size_t valueEnd = skipValue(text, at);
    visit(JsonSpan{at, valueEnd});
    at = skipWhiteSpace(text, valueEnd);
    if (at < span.end && text[at] == ',') at = skipWhiteSpace(text, at + 1);
  }
}

}  // namespace telvo::tool
