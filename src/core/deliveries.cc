#include "core/deliveries.h"

namespace telvo {
namespace core {
namespace {

class TrackedDelegate final : public TelvoTransportDelegate {
 public:
  TrackedDelegate(std::shared_ptr<TelvoTransportDelegate> inner,
                  std::shared_ptr<Deliveries::Ticket> ticket)
      : inner_(std::move(inner)), ticket_(std::move(ticket)) {}

  void requestDidReceiveResult(const URLRequest& request, const std::optional<Json>& result,
                               std::int32_t context) override {
    inner_->requestDidReceiveResult(request, result, context);
  }
  bool respondsToDidFailWithError() const override { return inner_->respondsToDidFailWithError(); }
  void didFailWithError(const Error& error) override { inner_->didFailWithError(error); }
  std::shared_ptr<UserDefaults> cookieStore() const override { return inner_->cookieStore(); }

 private:
  const std::shared_ptr<TelvoTransportDelegate> inner_;
  const std::shared_ptr<Deliveries::Ticket> ticket_;
};

}  // namespace

std::shared_ptr<TelvoTransportDelegate> Deliveries::tracked(
    std::shared_ptr<TelvoTransportDelegate> inner, std::shared_ptr<Ticket> ticket) {
  return std::make_shared<TrackedDelegate>(std::move(inner), std::move(ticket));
}

}  // namespace core
}  // namespace telvo
