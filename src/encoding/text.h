// Small text helpers for header fields and cookie attributes. Pure; any thread.
#pragma once

#include <string>
#include <string_view>

namespace telvo {
namespace encoding {

// ASCII case-insensitive equality, as HTTP field names and cookie attribute
// names compare.
inline bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

// `text` without leading and trailing spaces and tabs.
inline std::string_view trimmed(std::string_view text) {
  const auto begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  const auto end = text.find_last_not_of(" \t");
  return text.substr(begin, end - begin + 1);
}

}  // namespace encoding
}  // namespace telvo
