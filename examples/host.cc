// A small host application: two clients of one app and site, one batching on
// a timer and one on a count, driven through the public API only.
//
//   telvo_example_host --config-base https://127.0.0.1:8443/config/ --app demo
//                      --site lab --cacert ca.pem [--debug] [--timeout 20]
#include <telvo/executor.h>
#include <telvo/notification_center.h>
#include <telvo/telvo.h>
#include <telvo/telvo_config.h>
#include <telvo/telvo_delegate.h>
#include <telvo/telvo_transport.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  std::string configBase = telvo::TelvoConfigBaseURL;
  std::string app = "demo";
  std::string site = "lab";
  std::string caFile;
  bool debug = false;
  double timeout = 20;  // seconds for each wait
};

// Tells the host when its client is ready. Called on the transport's thread.
class ReadyDelegate : public telvo::TelvoDelegate {
 public:
  bool respondsToTelvoInitialized() const override { return true; }
  void telvoInitialized() override {
    std::lock_guard<std::mutex> lock(mutex_);
    ready_ = true;
    changed_.notify_all();
  }
  // Also asks the client: it may have become ready before the delegate was set.
  bool waitFor(const telvo::Telvo& client, Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!ready_ && !client.isInitialized()) {
      if (changed_.wait_until(lock,
                              std::min(deadline, Clock::now() + std::chrono::milliseconds(50))) ==
              std::cv_status::timeout &&
          Clock::now() >= deadline) {
        return client.isInitialized();
      }
    }
    return true;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool ready_ = false;
};

void step(const std::string& line) {
  std::printf("host: %s\n", line.c_str());
  std::fflush(stdout);
}

bool parse(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string& out) {
      if (i + 1 >= argc) return false;
      out = argv[++i];
      return true;
    };
    std::string number;
    if (arg == "--config-base") {
      if (!value(options.configBase)) return false;
    } else if (arg == "--app") {
      if (!value(options.app)) return false;
    } else if (arg == "--site") {
      if (!value(options.site)) return false;
    } else if (arg == "--cacert") {
      if (!value(options.caFile)) return false;
    } else if (arg == "--timeout") {
      if (!value(number)) return false;
      char* end = nullptr;
      options.timeout = std::strtod(number.c_str(), &end);
      if (end == number.c_str() || *end != '\0' || !(options.timeout > 0) ||
          options.timeout > 3600) {
        return false;  // a positive number of seconds, at most an hour
      }
    } else if (arg == "--debug") {
      options.debug = true;
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, options)) {
    std::fprintf(stderr,
                 "usage: %s [--config-base URL] [--app NAME] [--site NAME] [--cacert FILE] "
                 "[--debug] [--timeout SECONDS]\n",
                 argv[0]);
    return 2;
  }
  const auto waitLimit =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options.timeout));

  // Transport settings apply to the transport made for the first client.
  telvo::TelvoTransport::Options transport;
  transport.caFile = options.caFile;
  telvo::TelvoTransport::setOptions(transport);
  step("transport configured" + (options.caFile.empty() ? "" : " with CA file " + options.caFile));

  auto makeConfig = [&](std::optional<std::vector<std::string>> highPriority) {
    auto config = std::make_shared<telvo::TelvoConfig>("linux", "1", options.site, "1.0",
                                                       options.app, options.configBase);
    config->setHighPriorityEvents(std::move(highPriority));
    return config;
  };
  // The timer client treats "purchase" as urgent.
  auto timerClient =
      telvo::Telvo::create(makeConfig(std::vector<std::string>{"purchase"}), "example", "timer");
  auto countClient = telvo::Telvo::create(makeConfig(std::nullopt), "example", "count");
  if (!timerClient || !countClient) {
    std::fprintf(stderr, "host: error: a client could not be created\n");
    return 1;
  }
  auto timerReady = std::make_shared<ReadyDelegate>();
  auto countReady = std::make_shared<ReadyDelegate>();
  timerClient->setDelegate(timerReady);
  countClient->setDelegate(countReady);
  timerClient->setDebug(options.debug);
  countClient->setDebug(options.debug);
  step("created clients for environments \"timer\" and \"count\"");

  const auto deadline = Clock::now() + waitLimit;
  if (!timerReady->waitFor(*timerClient, deadline)) {
    std::fprintf(stderr, "host: error: client \"timer\" did not become initialised within %g s\n",
                 options.timeout);
    return 1;
  }
  if (!countReady->waitFor(*countClient, deadline)) {
    std::fprintf(stderr, "host: error: client \"count\" did not become initialised within %g s\n",
                 options.timeout);
    return 1;
  }
  step("both clients initialised, session " + timerClient->sessionID().dump() + " and " +
       countClient->sessionID().dump());

  const auto countMaster = countClient->masterConfig();
  const std::int64_t count =
      countMaster && countMaster->batchAmount() > 0 ? countMaster->batchAmount() : 3;
  for (std::int64_t i = 0; i < count; ++i) {
    countClient->sendEvent("page_view", telvo::Json{{"page", "home"}, {"index", i}});
  }
  step("sent " + std::to_string(count) + " events to the count client (one count flush)");

  timerClient->sendEvent("play", telvo::Json{{"title", "Intro"}, {"position", 0}});
  timerClient->sendEvent("purchase", telvo::Json{{"item", "movie"}, {"price", 3.99}});
  step("sent a high-priority \"purchase\" event to the timer client (flushes at once)");

  countClient->sendEvent("error", telvo::Json{{"reason", "decoder"}});
  step("sent an \"error\" event to the count client (flushes at once)");

  timerClient->sendError("E42", telvo::Json{{"component", "player"}});
  step("reported error E42");

  // Everything so far leaves and is answered before the host goes on.
  const auto flushLimit = std::chrono::duration_cast<std::chrono::milliseconds>(waitLimit);
  if (!timerClient->flush(flushLimit) || !countClient->flush(flushLimit)) {
    std::fprintf(stderr, "host: error: posts still in flight after %g s\n", options.timeout);
    return 1;
  }
  step("flushed both clients; every post answered");

  timerClient->sendEvent("pause", telvo::Json{{"position", 12}});
  const auto timerMaster = timerClient->masterConfig();
  const double interval = timerMaster ? static_cast<double>(timerMaster->batchAmount()) : 0;
  step("waiting for the timer flush (every " + std::to_string(static_cast<long long>(interval)) +
       " s)");
  const auto timerDeadline = Clock::now() + waitLimit;
  // The capture runs on the main queue: once it has, the queue shows the
  // event until the timer takes it.
  telvo::drain(*telvo::mainQueue(), options.timeout);
  while (!timerClient->batch().empty() && Clock::now() < timerDeadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (!timerClient->batch().empty()) {
    std::fprintf(stderr, "host: error: the timer did not flush within %g s\n", options.timeout);
    return 1;
  }
  step("timer flushed");

  countClient->sendEvent("stop", telvo::Json{{"position", 30}});
  telvo::NotificationCenter::defaultCenter()->postNotificationName(
      telvo::UIApplicationDidEnterBackgroundNotification);
  step("posted UIApplicationDidEnterBackgroundNotification (timers stopped)");

  // Before exiting: what is queued leaves, then the library's threads stop.
  if (!timerClient->flush(flushLimit) || !countClient->flush(flushLimit)) {
    std::fprintf(stderr, "host: error: posts still in flight after %g s\n", options.timeout);
    return 1;
  }
  step("flushed both clients");
  for (const auto& [label, client] : {std::pair{"timer", timerClient}, std::pair{"count", countClient}}) {
    const telvo::Stats stats = client->stats();
    step(std::string(label) + " client: " + std::to_string(stats.eventsAccepted) +
         " events accepted, " + std::to_string(stats.eventsPosted) + " posted in " +
         std::to_string(stats.postsMade) + " posts, " + std::to_string(stats.eventsDropped()) +
         " dropped, " + std::to_string(stats.eventsFailed) + " failed; " +
         std::to_string(stats.errorsSent) + " error reports sent");
  }
  if (!telvo::shutdown(std::chrono::seconds(2))) {
    std::fprintf(stderr, "host: error: the library did not stop within 2 s\n");
    return 1;
  }
  step("library shut down; done");
  return 0;
}
