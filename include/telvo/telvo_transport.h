// TelvoTransport: the one object through which the library talks HTTP.
//
// Callers build a complete URLRequest and hand it over with an integer context
// and a delegate. For each request exactly one completion runs, on the
// transport's own thread: on a transfer error the delegate hears
// didFailWithError (only if it implements it) and nothing else; otherwise the
// last Set-Cookie is kept under "telvoUUIDCookie" (in the delegate's
// cookieStore(), else the store the transport was made with), a callback
// wrapper is stripped from the body, the body is parsed as JSON (object or
// array at the top) and the result goes to requestDidReceiveResult - or, when
// it does not parse, to didFailWithError if implemented, else
// requestDidReceiveResult with nothing. The HTTP status is told to the
// delegate (requestDidReceiveStatus) before the result, and never acted on.
// The delegate is held strongly until its completion has run.
//
// Thread safety: every member function may be called from any thread.
#pragma once

#include "telvo/export.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "telvo/types.h"
#include "telvo/url_request.h"

namespace telvo {

class UserDefaults;

// The user-defaults key of the service's cookie.
inline constexpr const char* TelvoUUIDCookieKey = "telvoUUIDCookie";

// The domains of the errors a delegate hears: a transfer that failed, and an
// answer that arrived but does not parse.
inline constexpr const char* kTransportErrorDomain = "telvo.transport";
inline constexpr const char* kJSONErrorDomain = "telvo.json";

// The contexts the client tags its requests with.
inline constexpr std::int32_t kConfigurationContext = 0;  // the configuration fetch
inline constexpr std::int32_t kHelloContext = 2;          // the hello
inline constexpr std::int32_t kPostContext = 3;           // batch and error posts

class TELVO_API TelvoTransportDelegate {
 public:
  virtual ~TelvoTransportDelegate() = default;
  // The response was received and handed to the JSON parser. `result` is the
  // parsed value, or nothing where it did not parse.
  virtual void requestDidReceiveResult(const URLRequest& request, const std::optional<Json>& result,
                                       std::int32_t context) = 0;
  // Optional: the answer's HTTP status, before its result. The libcurl
  // transport tells it for every answer; a transport that cannot tell does
  // not call it.
  virtual void requestDidReceiveStatus(long statusCode, std::int32_t context) {
    (void)statusCode;
    (void)context;
  }
  // Optional: a delegate that wants failures overrides both of these.
  virtual bool respondsToDidFailWithError() const { return false; }
  virtual void didFailWithError(const Error& error) { (void)error; }
  // Where the service's cookie from this delegate's answers is kept; null
  // (the default): the transport's own store.
  virtual std::shared_ptr<UserDefaults> cookieStore() const { return nullptr; }
};

class TELVO_API TelvoTransport {
 public:
  // Settings of the libcurl transport; take effect for transports made after
  // they are set (so set them before the first sharedTransport()).
  struct Options {
    std::string caFile;         // PEM bundle to trust instead of the system store
    std::string caPath;         // folder of hashed certificates
    std::string proxy;          // e.g. "http://proxy:3128"; empty: libcurl's default
    double connectTimeout = 0;  // seconds; 0: libcurl's default
    // Seconds without data before a request fails, for every request (any
    // byte sent or received starts it again); 0: each request's own
    // timeoutInterval (30 s for the client's posts).
    double requestTimeout = 0;
  };
  static void setOptions(Options options);
  static Options options();

  // The process-wide transport: a libcurl transport, made on first use.
  static std::shared_ptr<TelvoTransport> sharedTransport();
  // Replaces it (tests, hosts with their own HTTP stack). Before clients exist.
  static void setSharedTransport(std::shared_ptr<TelvoTransport> transport);
  // A new, independent libcurl transport with its own thread and connections,
  // keeping the service's cookie in `cookieStore` (null: the standard user
  // defaults as they are now) for delegates that name no store of their own.
  // Releasing it stops its thread: transfers still running get about 1.5 s,
  // then complete with a "telvo.transport" cancellation error. At process
  // exit every libcurl transport still alive (the shared one included) is
  // stopped the same way.
  static std::shared_ptr<TelvoTransport> makeCurlTransport(
      Options options, std::shared_ptr<UserDefaults> cookieStore = nullptr);

  virtual ~TelvoTransport() = default;

  // Starts the request and returns at once. The request fails with a
  // "telvo.transport" error (code = the CURLcode) where it has no URL, a bad
  // method or a header field that is not a token or holds CR/LF. A null
  // delegate is allowed: the request goes out and its result is dropped.
  virtual void sendRequest(URLRequest request, std::int32_t context,
                           std::shared_ptr<TelvoTransportDelegate> delegate) = 0;

  // Waits until no request is in flight (every completion has run and its
  // delegate been released), at most `timeout` seconds. True when idle. From
  // inside a completion it does not wait.
  virtual bool waitUntilIdle(double timeout) = 0;

  // The body with a callback wrapper (name "(" JSON ");") removed: everything
  // after the first "(" up to the last ");". A body with "(" but no ");"
  // comes back unchanged; bytes that are not UTF-8 come back empty.
  Bytes dataWithStrippedJSONCallback(const Bytes& body) const;
};

}  // namespace telvo
