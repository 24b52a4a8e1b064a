// LocalService: the analytics service on a real HTTPS server on 127.0.0.1,
// for client tests: the configuration document of app "Player", site "den"
// (enabled, timer batching every hour, so only flushes send), a hello answer
// with session "S-1", and batch and error posts; posts are answered at once
// or held until released.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "support/https_test_server.h"
#include "telvo/envelope.h"
#include "telvo/telvo.h"
#include "telvo/telvo_config.h"
#include "telvo/types.h"

namespace telvo::test {

constexpr const char* kBatchPath = "/api/batch.json";
constexpr const char* kErrorPath = "/api/postEvent/error";

// A service whose posts are answered at once, or held until released (at
// most 10 s, so a failing test still ends).
class LocalService {
 public:
  LocalService() {
    document_ = Json{{"default",
                      {{"enabled", true},
                       {"batchMode", "timer"},
                       {"batchModeAmount", 3600},  // only flushes send
                       {"servicesUrl", server_.url()},
                       {"helloApi", "/api/hello"},
                       {"batchApi", "/api/batch"}}}}
                    .dump();
    server_.route("GET", "/config/Player/den/telvoanalytics.json",
                  [this](const httplib::Request&, httplib::Response& response) {
                    response.set_content(document_, "application/json");
                  });
    server_.route("POST", "/api/hello", [this](const httplib::Request&, httplib::Response& response) {
      if (hold_) released_.wait_for(std::chrono::seconds(10));
      response.set_content(R"({"sessionId":"S-1","throttled":false})", "application/json");
    });
    for (const char* path : {kBatchPath, kErrorPath}) {
      server_.route("POST", path, [this](const httplib::Request&, httplib::Response& response) {
        if (hold_) released_.wait_for(std::chrono::seconds(10));
        response.set_content("{}", "application/json");
      });
    }
  }
  // Handlers still waiting read the members below: wake them, then let the
  // server join its threads before any member goes.
  ~LocalService() {
    release();
    server_.stop();
  }

  // Posts (hellos included) from now on are held until release().
  void hold() { hold_ = true; }
  void release() {
    if (hold_.exchange(false)) releasing_.set_value();
  }

  std::shared_ptr<TelvoConfig> config() const {
    return std::make_shared<TelvoConfig>("linux", "12", "den", "3.0", "Player",
                                         server_.url("/config/"));
  }
  std::string caFile() const { return server_.certificateFile(); }
  HttpsTestServer& server() { return server_; }

  // The events of every batch post received, in order.
  Json postedEvents() const {
    Json events = Json::array();
    for (const auto& request : server_.requests()) {
      if (request.path != kBatchPath) continue;
      const Json document = decodeTelvoJsonParameter(request.body).document;
      for (const auto& event : document["events"]) events.push_back(event);
    }
    return events;
  }
  std::size_t errorPosts() const {
    std::size_t count = 0;
    for (const auto& request : server_.requests()) count += request.path == kErrorPath;
    return count;
  }

 private:
  HttpsTestServer server_;
  std::string document_;
  std::atomic<bool> hold_{false};
  std::promise<void> releasing_;
  std::shared_future<void> released_ = releasing_.get_future().share();
};

// Polls `done` every 10 ms for up to 20 s; true once it holds.
inline bool waitFor(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

}  // namespace telvo::test
