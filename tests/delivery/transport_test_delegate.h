// A transport delegate for tests: records every call, optionally implements
// didFailWithError, and lets a test wait for calls.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "telvo/telvo_transport.h"
#include "telvo/user_defaults.h"

namespace telvo::test {

class TestTransportDelegate : public TelvoTransportDelegate {
 public:
  struct Result {
    URLRequest request;
    std::optional<Json> result;
    std::int32_t context;
  };

  explicit TestTransportDelegate(bool wantsFailures) : wantsFailures_(wantsFailures) {}

  // Runs inside requestDidReceiveResult, before the call is recorded.
  std::function<void(const Result&)> onResult;
  // The store the delegate names for the service's cookie (none: the
  // transport's own). Set before the first request.
  std::shared_ptr<UserDefaults> store;

  std::shared_ptr<UserDefaults> cookieStore() const override { return store; }

  void requestDidReceiveResult(const URLRequest& request, const std::optional<Json>& result,
                               std::int32_t context) override {
    Result entry{request, result, context};
    if (onResult) onResult(entry);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      results_.push_back(std::move(entry));
    }
    changed_.notify_all();
  }
  bool respondsToDidFailWithError() const override { return wantsFailures_; }
  void didFailWithError(const Error& error) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      failures_.push_back(error);
    }
    changed_.notify_all();
  }

  bool waitForCalls(std::size_t count, double seconds = 10) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::duration<double>(seconds),
                             [&] { return results_.size() + failures_.size() >= count; });
  }
  std::vector<Result> results() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return results_;
  }
  std::vector<Error> failures() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return failures_;
  }
  std::size_t calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return results_.size() + failures_.size();
  }

 private:
  const bool wantsFailures_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Result> results_;
  std::vector<Error> failures_;
};

}  // namespace telvo::test
