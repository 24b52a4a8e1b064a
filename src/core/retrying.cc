// The retrying delivery (ClientOptions::retry): start-up requests and posts
// tried again after a backoff, and the events a host sends before the hello
// answered kept for it.
#include <cstdio>

#include "core/telvo_impl.h"
#include "platform/schedule_once.h"
#include "telvo/log.h"

namespace telvo {

namespace {

using delivery::Attempt;
using delivery::RetryRules;
using delivery::Verdict;

std::string seconds(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", value);
  return text;
}

// A start-up request's delegate: an answer good enough goes to the client as
// it would without retrying; anything else is tried again once the transport
// lets go of the delegate.
class StartupAttempt final : public TelvoTransportDelegate {
 public:
  StartupAttempt(std::shared_ptr<Telvo> client, std::function<void()> failed)
      : client_(std::move(client)), failed_(std::move(failed)) {}
  ~StartupAttempt() override {
    if (!handed_) failed_();
  }

  void requestDidReceiveStatus(long statusCode, std::int32_t) override { attempt_.status = statusCode; }
  void requestDidReceiveResult(const URLRequest& request, const std::optional<Json>& result,
                               std::int32_t context) override {
    attempt_.answered = true;
    attempt_.parsed = result.has_value();
    if (RetryRules::startup(attempt_) != Verdict::kDelivered) return;
    handed_ = true;
    client_->requestDidReceiveResult(request, result, context);
  }
  std::shared_ptr<UserDefaults> cookieStore() const override { return client_->cookieStore(); }

 private:
  const std::shared_ptr<Telvo> client_;
  const std::function<void()> failed_;  // runs while client_ is held
  Attempt attempt_;
  bool handed_ = false;
};

}  // namespace

std::shared_ptr<TelvoTransportDelegate> Telvo::Impl::startupDelegate(std::int32_t context) {
  return std::make_shared<StartupAttempt>(self(), [this, context] { startupFailed(context); });
}

void Telvo::Impl::startupFailed(std::int32_t context) {
  const bool hello = context == kHelloContext;
  std::shared_ptr<const TelvoMasterConfig> master;
  {
    std::lock_guard<std::mutex> lock(mutex);
    master = masterConfig;
  }
  double wait;
  std::int64_t retry;
  {
    std::lock_guard<std::mutex> lock(retryMutex);
    retry = ++(hello ? helloRetries : configRetries);
    wait = backoff.delay(retry);
  }
  const char* what = hello ? "hello" : "configuration fetch";
  if (hello && master) {
    if (!RetryRules::helloMayRetry(retry, master->helloRetryCount())) {
      log(std::string("Telvo: the hello failed ") + std::to_string(retry) +
          " times, as many as \"helloRetryCount\" allows; the client stays uninitialised");
      return;
    }
    if (master->helloRetryTime() > 0) wait = static_cast<double>(master->helloRetryTime());
  }
  log(std::string("Telvo: the ") + what + " failed; trying again in " + seconds(wait));
  retryAfter(wait, [this, hello] {
    counters.retries.add();
    if (hello) {
      sendHello();
    } else {
      getConfigs();
    }
  });
}

void Telvo::Impl::retryAfter(double wait, std::function<void()> action) {
  std::weak_ptr<Telvo> weak = self();
  auto fire = [weak] {
    auto client = weak.lock();
    if (!client) return;
    Impl& impl = *client->_impl;
    std::function<void()> run;
    {
      std::lock_guard<std::mutex> lock(impl.retryMutex);
      impl.retryTimer.reset();
      run = std::move(impl.retryAction);
      impl.retryAction = nullptr;
    }
    if (run) run();
  };
  std::shared_ptr<Timer> previous;
  {
    std::lock_guard<std::mutex> lock(retryMutex);
    previous = std::move(retryTimer);
    // One action waits at a time: a start-up retry and a post's never
    // overlap (posts need the session the start-up gives).
    retryAction = std::move(action);
    retryTimer = scheduleOnce(*platform.mainQueue, wait, fire);
  }
  if (previous) previous->invalidate();
}

void Telvo::Impl::networkAvailable() {
  std::shared_ptr<Timer> timer;
  std::function<void()> run;
  {
    std::lock_guard<std::mutex> lock(retryMutex);
    timer = std::move(retryTimer);
    retryTimer.reset();
    run = std::move(retryAction);
    retryAction = nullptr;
  }
  if (timer) timer->invalidate();
  if (!run) return;
  try {
    platform.mainQueue->post([self = self(), run = std::move(run)] { run(); });
  } catch (const std::exception& e) {
    log(std::string("Telvo: the main queue refused a retry: ") + e.what());
  }
}

void Telvo::Impl::send(std::shared_ptr<Outgoing> outgoing) {
  auto judge = [this, outgoing](const Attempt& attempt) {
    const Verdict verdict = RetryRules::post(attempt);
    if (verdict != Verdict::kRetry) {
      settle(*outgoing, verdict == Verdict::kDelivered);
      nextInLine();
      return;
    }
    double wait;
    {
      std::lock_guard<std::mutex> lock(retryMutex);
      ++outgoing->retries;
      wait = backoff.delay(outgoing->retries);
      // First in line: it was sent before anything that waits.
      line.push_front(outgoing);
      lineBusy = true;
    }
    log("Telvo: a post failed (" +
        (attempt.answered ? "status " + std::to_string(attempt.status) : std::string("no answer")) +
        "); trying again in " + seconds(wait));
    retryAfter(wait, [this] {
      counters.retries.add();
      nextInLine();
    });
  };
  platform.transport->sendRequest(outgoing->request, kPostContext,
                                  core::Deliveries::tracked(self(), nullptr, std::move(judge)));
}

void Telvo::Impl::nextInLine() {
  std::shared_ptr<Outgoing> next;
  {
    std::lock_guard<std::mutex> lock(retryMutex);
    if (retryAction) return;  // a retry waits: the line goes on when it fires
    if (line.empty()) {
      lineBusy = false;
      return;
    }
    next = std::move(line.front());
    line.pop_front();
  }
  send(std::move(next));
}

void Telvo::Impl::settle(Outgoing& outgoing, bool delivered) {
  backlogBytes.fetch_sub(outgoing.bytes);
  if (outgoing.events > 0) {
    (delivered ? counters.eventsPosted : counters.eventsFailed).add(outgoing.events);
    if (!delivered) counters.postsFailed.add();
  } else {
    (delivered ? counters.errorsSent : counters.errorsFailed).add();
  }
  forget(outgoing.spooled);
  outgoing.ticket.reset();
}

void Telvo::Impl::correctEarlyEvents(double delta) {
  std::lock_guard<std::mutex> lock(pendingMutex);
  earlyDelta = delta;
  for (PendingEvent& event : pending) {
    if (!event.early) continue;
    event.stamp -= delta;
    event.early = false;
  }
}

void Telvo::Impl::dropEarlyEvents(const std::string& why) {
  earlyRefused.store(true, std::memory_order_relaxed);
  std::size_t dropped = 0;
  std::vector<std::uint64_t> spooled;
  {
    std::lock_guard<std::mutex> drainLock(drainMutex);
    std::lock_guard<std::mutex> lock(pendingMutex);
    std::vector<PendingEvent> kept;
    std::string keptText;
    for (PendingEvent& event : pending) {
      if (event.early) {
        ++dropped;
        pendingBytes -= event.bytes;
        if (event.spoolSequence != 0) spooled.push_back(event.spoolSequence);
        continue;
      }
      if (event.fields) {
        const std::size_t offset = keptText.size();
        keptText.append(pendingText, event.textOffset, event.nameLength + event.membersLength);
        event.textOffset = offset;
      }
      kept.push_back(std::move(event));
    }
    pending.swap(kept);
    pendingText.swap(keptText);
  }
  forget(spooled);
  { std::lock_guard<std::mutex> lock(initializedMutex); }
  initializedSignal.notify_all();  // a waiting flush has nothing left to wait for
  if (dropped == 0) return;
  counters.eventsDroppedRefused.add(dropped);
  log("Telvo: dropped " + std::to_string(dropped) + " event(s) sent before initialisation: " +
      why);
}

}  // namespace telvo
