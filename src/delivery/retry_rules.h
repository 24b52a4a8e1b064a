// When a request is tried again, and after how long: value-level rules for
// the opt-in retrying delivery. Pure, apart from Backoff's seeded random
// source; not synchronised.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>

namespace telvo {
namespace delivery {

// How one attempt ended, as the transport told it.
struct Attempt {
  bool answered = false;  // an answer arrived (else the transfer failed)
  long status = 0;        // its HTTP status; 0 when the transport does not tell
  bool parsed = true;     // its body parsed as JSON
};

enum class Verdict { kDelivered, kRetry, kGiveUp };

struct RetryRules {
  // A post: no answer, 5xx and 429 are worth another try; any other status
  // outside 2xx will not get better. What the answer says is not read.
  static Verdict post(const Attempt& attempt) {
    if (!attempt.answered) return Verdict::kRetry;
    const long status = attempt.status;
    if (status == 0 || (status >= 200 && status < 300)) return Verdict::kDelivered;
    if (status >= 500 || status == 429) return Verdict::kRetry;
    return Verdict::kGiveUp;
  }
  // A configuration fetch or hello also needs an answer that parses; any
  // failure is tried again, since the client cannot start without it.
  static Verdict startup(const Attempt& attempt) {
    if (!attempt.answered || !attempt.parsed) return Verdict::kRetry;
    const long status = attempt.status;
    if (status >= 500 || status == 429) return Verdict::kRetry;
    return Verdict::kDelivered;
  }
  // Whether retry number `retry` (1 for the first) of a hello may go, given
  // the master configuration's "helloRetryCount" (> 0 bounds the retries).
  static bool helloMayRetry(std::int64_t retry, std::int64_t helloRetryCount) {
    return helloRetryCount <= 0 || retry <= helloRetryCount;
  }
};

// Exponential backoff with full jitter: retry n waits a uniformly random
// time between 0 and min(cap, initial * 2^(n-1)) seconds.
class Backoff {
 public:
  Backoff(double initialSeconds, double capSeconds, std::uint64_t seed)
      : initial_(sane(initialSeconds, 1)), cap_(sane(capSeconds, 300)), random_(seed) {}

  double delay(std::int64_t retry) {
    const double exponent = static_cast<double>(std::clamp<std::int64_t>(retry - 1, 0, 62));
    const double ceiling = std::min(cap_, initial_ * std::exp2(exponent));
    return std::uniform_real_distribution<double>(0, ceiling)(random_);
  }

 private:
  // Host-given seconds: a NaN, negative or absurd value falls back.
  static double sane(double seconds, double fallback) {
    return std::isfinite(seconds) && seconds > 0 && seconds <= 86400 ? seconds : fallback;
  }

  double initial_, cap_;
  std::mt19937_64 random_;
};

}  // namespace delivery
}  // namespace telvo
