#include "telvo/telvo_transport.h"

#include <mutex>
#include <string_view>

#include "curl_transport.h"
#include "telvo/http_cookie.h"
#include "telvo/user_defaults.h"

namespace telvo {

namespace {

constexpr const char* kJSONErrorDomain = "telvo.json";
constexpr std::int64_t kJSONErrorNotUTF8 = 1;
constexpr std::int64_t kJSONErrorInvalid = 2;
constexpr std::int64_t kJSONErrorFragment = 3;

// The shared transport and the options for new transports. Never destroyed:
// the shared transport lives as long as the process (its thread is stopped at
// exit by the libcurl transport itself).
struct Globals {
  std::mutex mutex;
  TelvoTransport::Options options;         // guarded by mutex
  std::shared_ptr<TelvoTransport> shared;  // guarded by mutex
};

Globals& globals() {
  static Globals* instance = new Globals();
  return *instance;
}

// Strict UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUTF8(const Bytes& bytes) {
  size_t i = 0;
  const size_t n = bytes.size();
  while (i < n) {
    const std::uint8_t c = bytes[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t length;
    std::uint8_t low = 0x80, high = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      length = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      length = 3;
      if (c == 0xE0) low = 0xA0;
      if (c == 0xED) high = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      length = 4;
      if (c == 0xF0) low = 0x90;
      if (c == 0xF4) high = 0x8F;
    } else {
      return false;
    }
    if (i + length > n) return false;
    if (bytes[i + 1] < low || bytes[i + 1] > high) return false;
    for (size_t k = 2; k < length; ++k) {
      if (bytes[i + k] < 0x80 || bytes[i + k] > 0xBF) return false;
    }
    i += length;
  }
  return true;
}

// The body as JSON: an object or an array at the top, nothing else.
std::optional<Json> parseJSON(const Bytes& bytes, Error* error) {
  if (!isValidUTF8(bytes)) {
    *error = Error{kJSONErrorDomain, kJSONErrorNotUTF8, "the body is not UTF-8 text"};
    return std::nullopt;
  }
  Json parsed = Json::parse(bytes.begin(), bytes.end(), nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) {
    *error = Error{kJSONErrorDomain, kJSONErrorInvalid,
                   bytes.empty() ? "the body is empty" : "the body is not valid JSON"};
    return std::nullopt;
  }
  if (!parsed.is_object() && !parsed.is_array()) {
    *error = Error{kJSONErrorDomain, kJSONErrorFragment,
                   "the body's top-level value is not an object or an array"};
    return std::nullopt;
  }
  return parsed;
}

}  // namespace

void TelvoTransport::setOptions(Options options) {
  std::lock_guard<std::mutex> lock(globals().mutex);
  globals().options = std::move(options);
}

TelvoTransport::Options TelvoTransport::options() {
  std::lock_guard<std::mutex> lock(globals().mutex);
  return globals().options;
}

std::shared_ptr<TelvoTransport> TelvoTransport::sharedTransport() {
  std::lock_guard<std::mutex> lock(globals().mutex);
  // Guarded, unlike a plain test of the reference: two first calls on
  // different threads must not start two transports and leak one.
  if (!globals().shared) globals().shared = makeCurlTransport(globals().options);
  return globals().shared;
}

void TelvoTransport::setSharedTransport(std::shared_ptr<TelvoTransport> transport) {
  std::shared_ptr<TelvoTransport> previous;
  {
    std::lock_guard<std::mutex> lock(globals().mutex);
    previous = std::move(globals().shared);
    globals().shared = std::move(transport);
  }
  // `previous` may be the last reference; its destructor stops a thread, so
  // it runs here, outside the lock.
}

std::shared_ptr<TelvoTransport> TelvoTransport::makeCurlTransport(Options options) {
  return CurlTransport::create(std::move(options));
}

Bytes TelvoTransport::dataWithStrippedJSONCallback(const Bytes& body) const {
  // Bytes that are not UTF-8 make no text, and no text makes no bytes.
  if (!isValidUTF8(body)) return {};
  const std::string_view received(reinterpret_cast<const char*>(body.data()), body.size());

  // Everything after the first "(", or all of it when there is none.
  std::string_view afterOpen = received;
  if (auto open = received.find('('); open != std::string_view::npos) {
    afterOpen = received.substr(open + 1);
  }
  // Everything before the last ");". Without one, the received text goes on
  // unstripped: "(" alone is no wrapper (and the parser decides).
  auto close = afterOpen.rfind(");");
  std::string_view final = close == std::string_view::npos ? received : afterOpen.substr(0, close);
  return Bytes(final.begin(), final.end());
}

void TelvoTransport::complete(const URLRequest& request, std::int32_t context,
                              const std::shared_ptr<TelvoTransportDelegate>& delegate,
                              const std::optional<Error>& error,
                              const HTTPHeaderFields& responseHeaders, const Bytes& body) const {
  if (error) {
    if (delegate && delegate->respondsToDidFailWithError()) delegate->didFailWithError(*error);
    return;
  }

  // The service's cookie, parsed against the URL the caller asked for (not a
  // redirect's): the last one set replaces whatever was kept before.
  if (request.url) {
    auto cookies = HTTPCookie::cookiesWithResponseHeaderFields(responseHeaders, *request.url);
    if (!cookies.empty()) {
      auto defaults = UserDefaults::standardUserDefaults();
      defaults->setObject(cookies.back().properties(), TelvoUUIDCookieKey);
      defaults->synchronize();
    }
  }

  Error parseError{kJSONErrorDomain, kJSONErrorNotUTF8, "the body is not UTF-8 text"};
  std::optional<Json> result;
  if (isValidUTF8(body)) result = parseJSON(dataWithStrippedJSONCallback(body), &parseError);
  if (!delegate) return;
  if (!result && delegate->respondsToDidFailWithError()) {
    delegate->didFailWithError(parseError);
    return;
  }
  delegate->requestDidReceiveResult(request, result, context);
}

}  // namespace telvo
