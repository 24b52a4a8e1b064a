// CurlTransport: the library's TelvoTransport. Each request goes out through
// the libcurl layer (CurlClient) and each answer through the response reader,
// on the libcurl thread. Requests that handle cookies carry the process jar's
// cookies and feed it; the service's cookie is kept in the delegate's
// cookieStore(), or else in the store the transport was made with.
//
// Thread safety: every member function may be called from any thread,
// including from inside a completion.
#pragma once

#include <cstdint>
#include <memory>

#include "telvo/telvo_transport.h"

namespace telvo {

class Clock;
class UserDefaults;

namespace delivery {
class CurlClient;
}

class CurlTransport final : public TelvoTransport {
 public:
  static constexpr double kShutdownGrace = 1.5;

  // `cookieStore` null: the standard user defaults as they are now; `clock`
  // null: the default clock as it is now.
  static std::shared_ptr<CurlTransport> create(Options options,
                                               std::shared_ptr<UserDefaults> cookieStore = nullptr,
                                               std::shared_ptr<Clock> clock = nullptr);
  ~CurlTransport() override;

  void sendRequest(URLRequest request, std::int32_t context,
                   std::shared_ptr<TelvoTransportDelegate> delegate) override;
  bool waitUntilIdle(double timeout) override;

  // Stops the libcurl thread (see CurlClient::shutdown).
  void shutdown(double graceSeconds);
  // New connections opened so far (each one a TCP connect and TLS handshake).
  std::int64_t connectionsOpened() const;

 private:
  CurlTransport(std::shared_ptr<delivery::CurlClient> client,
                std::shared_ptr<UserDefaults> cookieStore, std::shared_ptr<Clock> clock);
  const std::shared_ptr<delivery::CurlClient> client_;
  const std::shared_ptr<UserDefaults> cookieStore_;
  const std::shared_ptr<Clock> clock_;
};

}  // namespace telvo
