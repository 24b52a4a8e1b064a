// JSON text helpers shared by the client and its value-level steps: writing
// that never throws, "(null)" for absent values, truth values and numbers
// read from answers and documents. Pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "telvo/types.h"

namespace telvo {
namespace encoding {

// Arrays and objects nested deeper than this, in JSON from outside (answers,
// documents, files, posted bodies), make the text count as not parsing: well
// below what the copies and walks of such a value need from a small stack.
inline constexpr std::size_t kMaxJsonDepth = 128;

// True when `text` nests arrays and objects at most `maxDepth` deep. A linear
// scan that skips strings; it does not check that the text is JSON.
bool withinJsonDepth(std::string_view text, std::size_t maxDepth = kMaxJsonDepth);

// `text` parsed, or a discarded value (is_discarded()) where it is not JSON
// or nests deeper than kMaxJsonDepth; `error`, when given, then receives why
// in the parser's words. Never throws. Every JSON text the library reads
// goes through here, so that the parser is compiled once.
Json parseJson(std::string_view text, std::string* error = nullptr);

// Compact JSON. Invalid UTF-8 in strings becomes U+FFFD instead of throwing;
// non-finite numbers become null.
std::string dumpJson(const Json& value);

// The value, or "(null)" when absent.
std::string textOrNull(const std::optional<std::string>& value);
// The same for a setting that may hold a JSON null, which shows as "<null>".
std::string textOrNull(const std::optional<std::string>& value, bool holdsNull);

// A value as a log line or description shows it: text as it stands (no
// quotes, no escapes), a JSON null as "<null>", anything else as compact
// JSON, "(null)" when absent.
std::string describeJson(const Json* value);

// Compact JSON of `value`, or "(null)" when absent.
std::string jsonOrNull(const std::optional<Json>& value);

// Truth of text: after white space, an optional sign and zeros, it begins
// with Y, y, T, t or a digit 1-9.
bool truthFromText(std::string_view text);

// Truth of a member: booleans as they are, numbers when not zero, text as
// truthFromText; anything else is false.
bool truthValue(const Json& value);

// A number read from a JSON number, or from text holding one; 0 otherwise.
double numberValue(const Json& value);

// The places of `names` ordered by name (bytes compared as unsigned), equal
// names in their order.
std::vector<std::size_t> sortedOrder(const std::vector<std::string_view>& names);

// For each of `names`, whether one before it writes the same text once
// ill-formed UTF-8 is replaced by U+FFFD (as the writers here replace it):
// a writer keeps only the first of such names, so that no text repeats a
// member name.
std::vector<bool> repeatsOnceRepaired(const std::vector<std::string_view>& names);

// True when `text` goes into a JSON string literal as it stands: valid
// UTF-8 without control characters, quotes or backslashes.
bool writesAsIs(std::string_view text);

// Appends `text` to `out` as a JSON string literal, as dumpJson writes it.
void appendJsonString(std::string& out, std::string_view text);

// Appends `value` to `out` as compact JSON, as dumpJson would write it (but
// whole doubles may lose their ".0"). False, with `out` left partly written,
// when `value` holds a number JSON cannot represent.
bool appendJson(std::string& out, const Json& value);

// Appends the event object `data` with its "timestamp" member set to
// `timestamp` (replacing any the host gave), written first and without
// copying or changing `data`. False for non-finite numbers, as appendJson.
bool appendEventData(std::string& out, const Json& data, std::int64_t timestamp);

}  // namespace encoding
}  // namespace telvo
