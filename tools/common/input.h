// Reading a command's input file or standard input, bounded in size.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace telvo::tool {

// Input beyond this is refused rather than read into memory.
inline constexpr std::size_t kMaxInputBytes = std::size_t{256} << 20;

// The whole of `file` ("-" is standard input); nothing, with `error` saying
// why, when it cannot be read or holds more than kMaxInputBytes.
std::optional<std::string> readInput(const std::string& file, std::string& error);

}  // namespace telvo::tool
