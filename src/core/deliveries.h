// Deliveries: the posts and error reports a client has handed over and not
// yet seen completed, so that flush can wait for exactly those.
//
// Each piece of work takes a numbered ticket when it is accepted; the ticket
// is returned when the work is over, whatever its outcome: the transport has
// run the request's completion and released its delegate, or the work was
// dropped before it reached the transport. A waiter takes the number of the
// next ticket and waits until every ticket below it has been returned, so new
// work accepted while it waits cannot hold it up.
//
// Thread safety: every member function may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>

#include "delivery/retry_rules.h"
#include "telvo/telvo_transport.h"

namespace telvo {
namespace core {

class Deliveries : public std::enable_shared_from_this<Deliveries> {
 public:
  // Returns its ticket when destroyed; moved along with the work it stands for.
  class Ticket {
   public:
    Ticket(std::shared_ptr<Deliveries> owner, std::uint64_t number)
        : owner_(std::move(owner)), number_(number) {}
    ~Ticket() { owner_->finish(number_); }
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;

   private:
    std::shared_ptr<Deliveries> owner_;
    std::uint64_t number_;
  };

  std::shared_ptr<Ticket> begin() {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::uint64_t number = next_++;
    open_.insert(number);
    return std::make_shared<Ticket>(shared_from_this(), number);
  }

  // The number the next ticket will have.
  std::uint64_t horizon() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return next_;
  }

  // Waits until every ticket numbered below `horizon` has been returned, at
  // most until `deadline`. True when they all have.
  bool waitBefore(std::uint64_t horizon, std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    return finished_.wait_until(lock, deadline,
                                [&] { return open_.empty() || *open_.begin() >= horizon; });
  }

  // A delegate for one request: it forwards everything to `inner` and holds
  // `ticket`, which the transport returns by releasing it after the request's
  // completion. `settle`, when given, hears once how the attempt ended
  // (no completion at all counts as a failed transfer), while `inner` is
  // still held.
  static std::shared_ptr<TelvoTransportDelegate> tracked(
      std::shared_ptr<TelvoTransportDelegate> inner, std::shared_ptr<Ticket> ticket,
      std::function<void(const delivery::Attempt&)> settle = nullptr);

 private:
  void finish(std::uint64_t number) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      open_.erase(number);
    }
    finished_.notify_all();
  }

  mutable std::mutex mutex_;
  std::condition_variable finished_;
  std::uint64_t next_ = 0;        // guarded by mutex_
  std::set<std::uint64_t> open_;  // guarded by mutex_
};

}  // namespace core
}  // namespace telvo
