// The response reader on arbitrary answers: the first line is a Set-Cookie
// field, the rest the body. Never crashes; what reaches the delegate can be
// walked and copied.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "delivery/response_reader.h"
#include "telvo/http_cookie.h"
#include "telvo/user_defaults.h"

namespace {

class Delegate : public telvo::TelvoTransportDelegate {
 public:
  void requestDidReceiveResult(const telvo::URLRequest&, const std::optional<telvo::Json>& result,
                               std::int32_t) override {
    if (result) {
      telvo::Json copy = *result;
      (void)copy.dump();
    }
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const telvo::URLRequest request(telvo::URL::fromString("https://svc.example.test/api/hello"));
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const auto newline = input.find('\n');
  telvo::delivery::HttpResponse response;
  std::string_view body = input;
  if (newline != std::string_view::npos) {
    response.headers.emplace_back("Set-Cookie", std::string(input.substr(0, newline)));
    body = input.substr(newline + 1);
  }
  response.body.assign(body.begin(), body.end());
  auto store = std::make_shared<telvo::MemoryUserDefaults>();
  telvo::HTTPCookieStorage jar;
  telvo::delivery::readResponse(request, 2, std::make_shared<Delegate>(), response,
                                telvo::delivery::ResponseSinks{&jar, store, 1763800000});
  // A kept cookie must come back out of the store as a cookie.
  if (auto kept = store->objectForKey(telvo::TelvoUUIDCookieKey)) {
    (void)telvo::HTTPCookie::cookieWithProperties(*kept);
  }
  (void)jar.cookiesForURL(*request.url);
  return 0;
}
