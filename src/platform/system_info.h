// Internal helpers that read what the running system says about itself.
#pragma once

#include <string>

namespace telvo {
namespace system_info {

// The leading run of digits and dots, without a trailing dot:
// "6.1.0-18-amd64" -> "6.1.0", "rolling" -> "".
std::string leadingDottedNumbers(const std::string& text);

// The dotted VERSION_ID of an os-release file's text (quotes removed), or ""
// when it has none or it does not start with a number.
std::string versionFromOsRelease(const std::string& text);

// VERSION_ID of /etc/os-release (else /usr/lib/os-release), else the leading
// numbers of the kernel release, else "0".
std::string systemVersion();

// The machine field of uname, e.g. "x86_64"; "unknown" if uname fails.
std::string machine();

// A random version-4 UUID as 36 upper-case characters, 8-4-4-4-12.
std::string makeUUID();

// True for 36 characters of upper-case hex in the 8-4-4-4-12 layout.
bool isUUIDText(const std::string& text);

}  // namespace system_info
}  // namespace telvo
