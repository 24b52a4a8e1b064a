// The service's rules for every answer, applied once per response: keep the
// last cookie the service set, strip a callback wrapper, check UTF-8, parse,
// and tell the delegate. Whatever sent the request (libcurl, a test double)
// hands the reader what came back; the reader never touches the network.
//
// Thread safety: the functions are pure apart from the cookie jar and the
// user-defaults store they are given, both of which lock themselves.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "telvo/telvo_transport.h"
#include "telvo/types.h"
#include "telvo/url_request.h"

namespace telvo {

class HTTPCookieStorage;
class UserDefaults;

namespace delivery {

// What one transfer gave back.
struct HttpResponse {
  std::optional<Error> error;  // the transfer failed: nothing below is meaningful
  long status = 0;
  HTTPHeaderFields headers;  // the final response's fields, in order
  Bytes body;
};

// Where the reader keeps what a response sets.
struct ResponseSinks {
  // The jar of requests that handle cookies; null: none.
  HTTPCookieStorage* cookieJar = nullptr;
  // The store of the service's cookie ("telvoUUIDCookie"); null: not kept.
  std::shared_ptr<UserDefaults> cookieStore;
  // Seconds since 1970, for cookies that give a Max-Age.
  double now = 0;
};

// The body with a callback wrapper (name "(" JSON ");") removed: everything
// after the first "(" up to the last ");". Text with "(" but no ");" comes
// back unchanged. The caller has checked that the text is UTF-8.
std::string_view strippedJSONCallback(std::string_view text);

// The completion of one request (error first; then cookie keeping; then
// UTF-8, strip and parse; then delivery). A delegate's exception is let
// through; the caller catches it.
void readResponse(const URLRequest& request, std::int32_t context,
                  const std::shared_ptr<TelvoTransportDelegate>& delegate,
                  const HttpResponse& response, const ResponseSinks& sinks);

}  // namespace delivery
}  // namespace telvo
