// A transport for unit tests: it records every request and answers only when
// the test says so, through the library's response reader (cookie keeping,
// callback stripping, parsing, delivery). The service's cookie goes to the
// delegate's cookieStore(), else to the store given here (if any).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "telvo/telvo_transport.h"

namespace telvo {

class UserDefaults;
namespace delivery {
struct HttpResponse;
}

class RecordingTransport : public TelvoTransport {
 public:
  explicit RecordingTransport(std::shared_ptr<UserDefaults> cookieStore = nullptr);

  struct Sent {
    URLRequest request;
    std::int32_t context = 0;
  };

  // Called on the sending thread after each request is recorded, with its
  // index and no lock held (e.g. to answer at once).
  using SendHook = std::function<void(RecordingTransport& transport, std::size_t index)>;
  void setSendHook(SendHook hook);

  void sendRequest(URLRequest request, std::int32_t context,
                   std::shared_ptr<TelvoTransportDelegate> delegate) override;
  // True when every recorded request has been answered (or forgotten).
  bool waitUntilIdle(double timeout) override;

  std::size_t count() const;
  Sent at(std::size_t index) const;
  std::vector<Sent> sent() const;
  // Requests recorded with `context`, in order.
  std::vector<Sent> withContext(std::int32_t context) const;

  // Completes request `index` with `body` and `headers`, on the calling
  // thread, then releases its delegate. Each request is answered at most once.
  void answer(std::size_t index, const std::string& body, const HTTPHeaderFields& headers = {},
              long status = 200);
  void answerJson(std::size_t index, const Json& body, const HTTPHeaderFields& headers = {});
  // Completes request `index` with a transfer error.
  void fail(std::size_t index);
  // Forgets every request (releasing the delegates unanswered).
  void clear();

  // The decoded JSON document of a request body (envelope removed); null when
  // the body is missing or does not decode.
  static Json decodedBody(const URLRequest& request);

 private:
  struct Entry {
    Sent sent;
    std::shared_ptr<TelvoTransportDelegate> delegate;
    bool open = true;
  };
  std::shared_ptr<TelvoTransportDelegate> take(std::size_t index, Sent& sent);
  void complete(std::size_t index, delivery::HttpResponse response);

  const std::shared_ptr<UserDefaults> cookieStore_;

  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
  SendHook hook_;
};

}  // namespace telvo
