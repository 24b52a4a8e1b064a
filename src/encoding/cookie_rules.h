// The matching rules of RFC 6265 that both cookie parsing and the cookie jar
// apply. Pure; any thread.
#pragma once

#include <string>

#include "telvo/url.h"

namespace telvo {
namespace encoding {

std::string lowercase(std::string text);
// An IPv4 or IPv6 literal: such hosts match no other domain.
bool isIPAddress(const std::string& host);
// The URL's host in lower case without a trailing dot.
std::string hostOf(const URL& url);
// RFC 6265 5.1.3: `host` is `domain` or a name below it (not for IP addresses).
bool domainMatches(const std::string& host, const std::string& domain);
// RFC 6265 5.1.4: the path a cookie without a Path attribute gets.
std::string defaultPath(const std::string& uriPath);
// RFC 6265 5.1.4: `requestPath` lies at or below `cookiePath`.
bool pathMatches(const std::string& requestPath, const std::string& cookiePath);

}  // namespace encoding
}  // namespace telvo
