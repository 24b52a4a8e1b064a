// The settings' text form of a list of event names.
#pragma once

#include <string>
#include <vector>

namespace telvo {
namespace configuration {

// "a, b,c" -> {"a", "b", "c"}: every U+0020 blank removed, then split at each
// "," with empty names kept; a text without a comma is a one-name list.
std::vector<std::string> splitEventNames(std::string text);

}  // namespace configuration
}  // namespace telvo
