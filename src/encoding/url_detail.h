// The text rewrite behind URLWithURLStringConversion, exposed for tests.
#pragma once

#include <string>

namespace telvo::url_detail {

// `text` with a leading "http://" (case-sensitive test) replaced by
// "https://"; the replacement searches case-insensitively in the first
// min(length, 13) characters only. Anything else comes back unchanged.
std::string upgradeInsecurePrefix(std::string text);

}  // namespace telvo::url_detail
