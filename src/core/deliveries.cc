#include "core/deliveries.h"

namespace telvo {
namespace core {
namespace {

class TrackedDelegate final : public TelvoTransportDelegate {
 public:
  TrackedDelegate(std::shared_ptr<TelvoTransportDelegate> inner,
                  std::shared_ptr<Deliveries::Ticket> ticket,
                  std::function<void(bool delivered)> settle)
      : inner_(std::move(inner)), ticket_(std::move(ticket)), settle_(std::move(settle)) {}
  ~TrackedDelegate() override {
    // No answer reached it: the transfer failed (for a delegate that does
    // not hear failures) or the request never ran.
    if (settle_) settle_(answered_ && (status_ == 0 || (status_ >= 200 && status_ < 300)));
  }

  void requestDidReceiveStatus(long statusCode, std::int32_t context) override {
    status_ = statusCode;
    inner_->requestDidReceiveStatus(statusCode, context);
  }
  void requestDidReceiveResult(const URLRequest& request, const std::optional<Json>& result,
                               std::int32_t context) override {
    answered_ = true;
    inner_->requestDidReceiveResult(request, result, context);
  }
  bool respondsToDidFailWithError() const override { return inner_->respondsToDidFailWithError(); }
  void didFailWithError(const Error& error) override {
    // An answer that did not parse still arrived; the status tells.
    answered_ = error.domain == kJSONErrorDomain;
    inner_->didFailWithError(error);
  }
  std::shared_ptr<UserDefaults> cookieStore() const override { return inner_->cookieStore(); }

 private:
  const std::shared_ptr<TelvoTransportDelegate> inner_;
  const std::shared_ptr<Deliveries::Ticket> ticket_;
  const std::function<void(bool)> settle_;
  // Written by the completion, read when the transport releases the delegate.
  bool answered_ = false;
  long status_ = 0;
};

}  // namespace

std::shared_ptr<TelvoTransportDelegate> Deliveries::tracked(
    std::shared_ptr<TelvoTransportDelegate> inner, std::shared_ptr<Ticket> ticket,
    std::function<void(bool delivered)> settle) {
  return std::make_shared<TrackedDelegate>(std::move(inner), std::move(ticket), std::move(settle));
}

}  // namespace core
}  // namespace telvo
