#include "delivery/response_reader.h"

#include <string_view>

#include "encoding/json_text.h"
#include "encoding/utf8.h"
#include "telvo/http_cookie.h"
#include "telvo/user_defaults.h"

namespace telvo {
namespace delivery {

namespace {

constexpr std::int64_t kJSONErrorNotUTF8 = 1;
constexpr std::int64_t kJSONErrorInvalid = 2;
constexpr std::int64_t kJSONErrorFragment = 3;

// The stripped text as JSON: an object or an array at the top, nothing else.
// Nesting beyond kMaxJsonDepth counts as text that does not parse.
std::optional<Json> parseJSON(std::string_view text, Error* error) {
  Json parsed = encoding::parseJson(text);
  if (parsed.is_discarded()) {
    *error = Error{kJSONErrorDomain, kJSONErrorInvalid,
                   text.empty() ? "the body is empty" : "the body is not valid JSON"};
    return std::nullopt;
  }
  if (!parsed.is_object() && !parsed.is_array()) {
    *error = Error{kJSONErrorDomain, kJSONErrorFragment,
                   "the body's top-level value is not an object or an array"};
    return std::nullopt;
  }
  return parsed;
}

// Set-Cookie is parsed once: the jar takes every cookie, the store the last.
void keepCookies(const URLRequest& request, const HttpResponse& response,
                 const ResponseSinks& sinks) {
  // Parsed against the URL the caller asked for (not a redirect's).
  if (!request.url) return;
  auto cookies =
      HTTPCookie::cookiesWithResponseHeaderFields(response.headers, *request.url, sinks.now);
  if (cookies.empty()) return;
  if (request.HTTPShouldHandleCookies && sinks.cookieJar) {
    sinks.cookieJar->setCookies(cookies, *request.url);
  }
  if (sinks.cookieStore) {
    sinks.cookieStore->setObject(cookies.back().properties(), TelvoUUIDCookieKey);
    sinks.cookieStore->synchronize();
  }
}

}  // namespace

std::string_view strippedJSONCallback(std::string_view received) {
  // Everything after the first "(", or all of it when there is none.
  std::string_view afterOpen = received;
  if (auto open = received.find('('); open != std::string_view::npos) {
    afterOpen = received.substr(open + 1);
  }
  // Everything before the last ");". Without one, the received text goes on
  // unstripped: "(" alone is no wrapper (and the parser decides).
  auto close = afterOpen.rfind(");");
  return close == std::string_view::npos ? received : afterOpen.substr(0, close);
}

void readResponse(const URLRequest& request, std::int32_t context,
                  const std::shared_ptr<TelvoTransportDelegate>& delegate,
                  const HttpResponse& response, const ResponseSinks& sinks) {
  if (response.error) {
    if (delegate && delegate->respondsToDidFailWithError()) {
      delegate->didFailWithError(*response.error);
    }
    return;
  }
  keepCookies(request, response, sinks);
  if (delegate) delegate->requestDidReceiveStatus(response.status, context);

  const std::string_view text(reinterpret_cast<const char*>(response.body.data()),
                              response.body.size());
  Error parseError{kJSONErrorDomain, kJSONErrorNotUTF8, "the body is not UTF-8 text"};
  std::optional<Json> result;
  if (utf8::isValid(text)) result = parseJSON(strippedJSONCallback(text), &parseError);
  if (!delegate) return;
  if (!result && delegate->respondsToDidFailWithError()) {
    delegate->didFailWithError(parseError);
    return;
  }
  delegate->requestDidReceiveResult(request, result, context);
}

}  // namespace delivery
}  // namespace telvo
