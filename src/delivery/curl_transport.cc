#include "delivery/curl_transport.h"

#include "delivery/curl_client.h"
#include "delivery/response_reader.h"
#include "telvo/clock.h"
#include "telvo/http_cookie.h"
#include "telvo/user_defaults.h"

namespace telvo {

std::shared_ptr<CurlTransport> CurlTransport::create(Options options,
                                                     std::shared_ptr<UserDefaults> cookieStore,
                                                     std::shared_ptr<Clock> clock) {
  if (!cookieStore) cookieStore = UserDefaults::standardUserDefaults();
  if (!clock) clock = Clock::defaultClock();
  return std::shared_ptr<CurlTransport>(new CurlTransport(
      delivery::CurlClient::create(std::move(options)), std::move(cookieStore), std::move(clock)));
}

CurlTransport::CurlTransport(std::shared_ptr<delivery::CurlClient> client,
                             std::shared_ptr<UserDefaults> cookieStore,
                             std::shared_ptr<Clock> clock)
    : client_(std::move(client)), cookieStore_(std::move(cookieStore)), clock_(std::move(clock)) {}

CurlTransport::~CurlTransport() = default;

void CurlTransport::sendRequest(URLRequest request, std::int32_t context,
                                std::shared_ptr<TelvoTransportDelegate> delegate) {
  HTTPCookieStorage& jar = HTTPCookieStorage::sharedHTTPCookieStorage();
  std::shared_ptr<UserDefaults> store = delegate ? delegate->cookieStore() : nullptr;
  if (!store) store = cookieStore_;
  client_->send(std::move(request), &jar,
                [delegate = std::move(delegate), context, store = std::move(store), &jar,
                 clock = clock_](const URLRequest& sent, const delivery::HttpResponse& response) {
                  delivery::readResponse(sent, context, delegate, response,
                                         delivery::ResponseSinks{&jar, store, clock->now()});
                });
}

bool CurlTransport::waitUntilIdle(double timeout) { return client_->waitUntilIdle(timeout); }

void CurlTransport::shutdown(double graceSeconds) { client_->shutdown(graceSeconds); }

std::int64_t CurlTransport::connectionsOpened() const { return client_->connectionsOpened(); }

}  // namespace telvo
