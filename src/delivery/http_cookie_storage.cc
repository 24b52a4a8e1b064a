#include <algorithm>
#include <atomic>
#include <mutex>

#include "encoding/cookie_rules.h"
#include "encoding/key_order.h"
#include "telvo/clock.h"
#include "telvo/http_cookie.h"

namespace telvo {

using encoding::domainMatches;
using encoding::hostOf;
using encoding::lowercase;
using encoding::pathMatches;

struct TELVO_LOCAL HTTPCookieStorage::State {
  // Oldest first: a cookie that replaces its namesake goes to the end.
  struct Stored {
    HTTPCookie cookie;
  };
  explicit State(std::shared_ptr<Clock> clock) : clock(std::move(clock)) {}
  const std::shared_ptr<Clock> clock;
  std::atomic<int> policy{static_cast<int>(HTTPCookieAcceptPolicy::OnlyFromMainDocumentDomain)};
  std::mutex mutex;
  std::vector<Stored> cookies;  // guarded by mutex
};

HTTPCookieStorage::HTTPCookieStorage(std::shared_ptr<Clock> clock)
    : state_(std::make_unique<State>(clock ? std::move(clock) : std::make_shared<SystemClock>())) {}

HTTPCookieStorage::~HTTPCookieStorage() = default;

HTTPCookieStorage& HTTPCookieStorage::sharedHTTPCookieStorage() {
  // Never destroyed: requests may still use it while the process exits.
  static HTTPCookieStorage* storage = new HTTPCookieStorage();
  return *storage;
}

HTTPCookieAcceptPolicy HTTPCookieStorage::cookieAcceptPolicy() const {
  return static_cast<HTTPCookieAcceptPolicy>(state_->policy.load());
}

void HTTPCookieStorage::setCookieAcceptPolicy(HTTPCookieAcceptPolicy policy) {
  state_->policy.store(static_cast<int>(policy));
}

void HTTPCookieStorage::setCookies(const std::vector<HTTPCookie>& cookies, const URL& url) {
  if (cookieAcceptPolicy() == HTTPCookieAcceptPolicy::Never) return;
  const std::string host = hostOf(url);
  const double now = state_->clock->now();
  using Stored = State::Stored;
  auto& cookies_ = state_->cookies;
  std::lock_guard<std::mutex> lock(state_->mutex);
  for (const auto& cookie : cookies) {
    std::string domain = cookie.domain();
    if (!domain.empty() && domain.front() == '.') domain.erase(0, 1);
    if (!domainMatches(host, domain)) continue;
    cookies_.erase(std::remove_if(cookies_.begin(), cookies_.end(),
                                  [&](const Stored& stored) {
                                    return stored.cookie.name() == cookie.name() &&
                                           stored.cookie.domain() == cookie.domain() &&
                                           stored.cookie.path() == cookie.path();
                                  }),
                   cookies_.end());
    auto expires = cookie.expiresDate();
    if (expires && *expires <= now) continue;
    cookies_.push_back(Stored{cookie});
  }
}

std::vector<HTTPCookie> HTTPCookieStorage::cookiesForURL(const URL& url) const {
  const std::string host = hostOf(url);
  const std::string path = url.path();
  const bool secureChannel = lowercase(url.scheme()) == "https";
  const double now = state_->clock->now();
  using Stored = State::Stored;
  std::vector<Stored> matching;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    for (const auto& stored : state_->cookies) {
      const HTTPCookie& cookie = stored.cookie;
      const std::string domain = cookie.domain();
      bool domainOK = !domain.empty() && domain.front() == '.'
                          ? domainMatches(host, domain.substr(1))
                          : host == domain;
      auto expires = cookie.expiresDate();
      if (domainOK && pathMatches(path, cookie.path()) && (secureChannel || !cookie.isSecure()) &&
          !(expires && *expires <= now)) {
        matching.push_back(stored);
      }
    }
  }
  // Longer paths first; cookies of equal path lengths oldest first, as they
  // are stored.
  std::vector<encoding::KeyAndPlace> order;
  order.reserve(matching.size());
  for (std::size_t i = 0; i < matching.size(); ++i) {
    order.emplace_back(-static_cast<double>(matching[i].cookie.path().size()), i);
  }
  encoding::sortByKey(order);
  std::vector<HTTPCookie> result;
  result.reserve(matching.size());
  for (const auto& key : order) result.push_back(std::move(matching[key.second].cookie));
  return result;
}

void HTTPCookieStorage::deleteAllCookies() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->cookies.clear();
}

}  // namespace telvo
