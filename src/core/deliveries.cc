#include "core/deliveries.h"

namespace telvo {
namespace core {
namespace {

class TrackedDelegate final : public TelvoTransportDelegate {
 public:
  TrackedDelegate(std::shared_ptr<TelvoTransportDelegate> inner,
                  std::shared_ptr<Deliveries::Ticket> ticket,
                  std::function<void(const delivery::Attempt&)> settle)
      : inner_(std::move(inner)), ticket_(std::move(ticket)), settle_(std::move(settle)) {}
  ~TrackedDelegate() override {
    // No answer reached it: the transfer failed (for a delegate that does
    // not hear failures) or the request never ran.
    if (settle_) settle_(attempt_);
  }

  void requestDidReceiveStatus(long statusCode, std::int32_t context) override {
    attempt_.status = statusCode;
    inner_->requestDidReceiveStatus(statusCode, context);
  }
  void requestDidReceiveResult(const URLRequest& request, const std::optional<Json>& result,
                               std::int32_t context) override {
    attempt_.answered = true;
    attempt_.parsed = result.has_value();
    inner_->requestDidReceiveResult(request, result, context);
  }
  bool respondsToDidFailWithError() const override { return inner_->respondsToDidFailWithError(); }
  void didFailWithError(const Error& error) override {
    // An answer that did not parse still arrived; the status tells.
    attempt_.answered = error.domain == kJSONErrorDomain;
    attempt_.parsed = false;
    inner_->didFailWithError(error);
  }
  std::shared_ptr<UserDefaults> cookieStore() const override { return inner_->cookieStore(); }

 private:
  const std::shared_ptr<TelvoTransportDelegate> inner_;
  const std::shared_ptr<Deliveries::Ticket> ticket_;
  const std::function<void(const delivery::Attempt&)> settle_;
  // Written by the completion, read when the transport releases the delegate.
  delivery::Attempt attempt_;
};

}  // namespace

std::shared_ptr<TelvoTransportDelegate> Deliveries::tracked(
    std::shared_ptr<TelvoTransportDelegate> inner, std::shared_ptr<Ticket> ticket,
    std::function<void(const delivery::Attempt&)> settle) {
  return std::make_shared<TrackedDelegate>(std::move(inner), std::move(ticket), std::move(settle));
}

}  // namespace core
}  // namespace telvo
