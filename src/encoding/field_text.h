// Writing a flat field list (telvo::Field) as the members of a compact JSON
// object, byte for byte as the Json path writes the same values. Pure
// functions; any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "telvo/field.h"

namespace telvo {
namespace encoding {

// What becomes of a number JSON cannot represent (NaN, infinity): events are
// refused, error reports carry null.
enum class NonFinite { kRefuse, kNull };

// Appends `,"key":value` for each of the `count` fields at `fields`, leaving
// out the fields keyed `skip` and every field whose key an earlier field
// already has: the first wins, as in a Json object built from a braced list.
// Keys and text are written as appendJsonString writes them, RawJson values
// compactly after checking them. Under kRefuse, false (with `out` partly
// written) when a number is not finite. Throws UsageError when a RawJson
// value is not JSON or nests deeper than kMaxJsonDepth.
bool appendFields(std::string& out, const Field* fields, std::size_t count, NonFinite nonFinite,
                  std::optional<std::string_view> skip = std::nullopt);

}  // namespace encoding
}  // namespace telvo
