// The user-defaults file's contents as values: what FileUserDefaults loads.
// Pure; any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "telvo/types.h"

namespace telvo {
namespace platform {

// A defaults file larger than this is not read (it holds a cookie and an
// identifier; anything that big was not written by the library).
inline constexpr std::size_t kMaxDefaultsFileBytes = 1 << 20;

// The stored values: `text` as one JSON object. Nothing where the text is not
// an object, is larger than kMaxDefaultsFileBytes or nests deeper than the
// JSON depth limit.
std::optional<Json> parseDefaultsFile(std::string_view text);

}  // namespace platform
}  // namespace telvo
