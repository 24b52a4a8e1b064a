// Cost of a post through the libcurl transport over loopback HTTPS.
//
//  - kept alive: every post reuses the one open connection (the service's
//    normal case: batches and errors to the same host).
//  - fresh connection: every post says "Connection: close", so each one pays
//    a TCP connect and a TLS handshake (session resumption allowed).
//
// Posts go one at a time (send, wait for the completion), as a client's
// batches do. The server runs in a forked child process, so the process's
// CPU time (getrusage) is the client's alone: the caller's thread plus the
// transport thread. Targets for the kept-alive case: at least 2,000 posts/s
// and at most 0.3 ms client CPU per post. A summary is printed at the end.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "delivery/curl_transport.h"
#include "support/https_test_server.h"
#include "telvo/envelope.h"
#include "telvo/telvo_transport.h"

namespace {

using telvo::CurlTransport;

struct ServerInfo {
  int port = -1;
  std::string certificateFile;
  pid_t pid = -1;
  int keepAliveFd = -1;  // closing it tells the child to stop
};
ServerInfo gServer;

struct Figures {
  double postsPerSecond = 0;
  double cpuMsPerPost = 0;
  double connectionsPerPost = 0;
};
Figures gKeptAlive, gFresh;

// Starts the HTTPS server in a child process that lives until the parent
// closes its end of a pipe (or dies).
bool startServerProcess() {
  int info[2], keepAlive[2];
  if (pipe(info) != 0 || pipe(keepAlive) != 0) return false;
  pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(info[0]);
    close(keepAlive[1]);
    {
      telvo::test::HttpsTestServer server;
      server.route("POST", "/api/postEvent/batch.json",
                   [](const httplib::Request&, httplib::Response& response) {
                     response.set_content(R"({"status":"ok"})", "application/json");
                   });
      std::string line = std::to_string(server.port()) + "\n" + server.certificateFile() + "\n";
      if (write(info[1], line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(1);
      close(info[1]);
      char byte;
      while (read(keepAlive[0], &byte, 1) > 0) {
      }
    }
    _exit(0);
  }
  close(info[1]);
  close(keepAlive[0]);
  std::string text;
  char buffer[512];
  ssize_t n;
  while ((n = read(info[0], buffer, sizeof buffer)) > 0) text.append(buffer, n);
  close(info[0]);
  auto newline = text.find('\n');
  if (newline == std::string::npos) return false;
  gServer.port = std::stoi(text.substr(0, newline));
  gServer.certificateFile = text.substr(newline + 1, text.find('\n', newline + 1) - newline - 1);
  gServer.pid = pid;
  gServer.keepAliveFd = keepAlive[1];
  return true;
}

void stopServerProcess() {
  if (gServer.pid <= 0) return;
  close(gServer.keepAliveFd);
  waitpid(gServer.pid, nullptr, 0);
}

class WaitingDelegate : public telvo::TelvoTransportDelegate {
 public:
  void requestDidReceiveResult(const telvo::URLRequest&, const std::optional<telvo::Json>& result,
                               std::int32_t) override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++done_;
    ok_ = ok_ && result.has_value();
    changed_.notify_one();
  }
  bool respondsToDidFailWithError() const override { return true; }
  void didFailWithError(const telvo::Error&) override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++done_;
    ok_ = false;
    changed_.notify_one();
  }
  void waitFor(std::int64_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return done_ >= count; });
  }
  bool ok() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return ok_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::int64_t done_ = 0;
  bool ok_ = true;
};

double processCPUSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void runPosts(benchmark::State& state, bool keepAlive, Figures* figures) {
  telvo::TelvoTransport::Options options;
  options.caFile = gServer.certificateFile;
  auto transport = CurlTransport::create(options);

  telvo::URLRequest request(
      telvo::URL::fromString("https://127.0.0.1:" + std::to_string(gServer.port) +
                             "/api/postEvent/batch.json"),
      4, 30);
  request.HTTPMethod = "POST";
  request.setValue("application/x-gzip", "Content-Type");
  request.setValue("gzip", "Content-Encoding");
  if (!keepAlive) request.setValue("close", "Connection");
  request.HTTPBody = telvo::buildTelvoJsonParameter(
      R"({"sessionId":"0F6A2C1E-3B7D-4E59-9C1A-7D2E5B8F4A10","events":[)"
      R"({"eventType":"screenView","eventData":{"screen":"home","ts":1763800000123}},)"
      R"({"eventType":"play","eventData":{"asset":"a-1234","position":0,"ts":1763800001456}}]})");

  auto delegate = std::make_shared<WaitingDelegate>();
  transport->sendRequest(request, 3, delegate);  // warm-up: connection, CA store
  delegate->waitFor(1);
  const std::int64_t connectionsBefore = transport->connectionsOpened();
  const double cpuBefore = processCPUSeconds();
  std::int64_t sent = 1;
  for (auto _ : state) {
    transport->sendRequest(request, 3, delegate);
    delegate->waitFor(++sent);
  }
  const double cpu = processCPUSeconds() - cpuBefore;
  const double posts = static_cast<double>(state.iterations());
  if (!delegate->ok()) state.SkipWithError("a post failed");
  state.counters["posts_per_s"] = benchmark::Counter(posts, benchmark::Counter::kIsRate);
  state.counters["client_cpu_ms_per_post"] = cpu * 1000 / posts;
  state.counters["connections_per_post"] =
      static_cast<double>(transport->connectionsOpened() - connectionsBefore) / posts;
  figures->cpuMsPerPost = cpu * 1000 / posts;
  figures->connectionsPerPost =
      static_cast<double>(transport->connectionsOpened() - connectionsBefore) / posts;
  transport.reset();
}

void BM_PostKeptAlive(benchmark::State& state) { runPosts(state, true, &gKeptAlive); }
void BM_PostFreshConnection(benchmark::State& state) { runPosts(state, false, &gFresh); }

BENCHMARK(BM_PostKeptAlive)->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(1.0);
BENCHMARK(BM_PostFreshConnection)->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(1.0);

// Takes posts/s from the reported rate (the benchmark's own wall time).
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      auto it = run.counters.find("posts_per_s");
      if (it == run.counters.end()) continue;
      double rate = it->second.value;
      if (run.run_name.function_name == "BM_PostKeptAlive") gKeptAlive.postsPerSecond = rate;
      if (run.run_name.function_name == "BM_PostFreshConnection") gFresh.postsPerSecond = rate;
    }
    ConsoleReporter::ReportRuns(runs);
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (!startServerProcess()) {
    std::fprintf(stderr, "cannot start the HTTPS server process\n");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  stopServerProcess();

  const bool rateMet = gKeptAlive.postsPerSecond >= 2000;
  const bool cpuMet = gKeptAlive.cpuMsPerPost > 0 && gKeptAlive.cpuMsPerPost <= 0.3;
  std::printf("\nSummary (server in a child process; client CPU = this process)\n");
  std::printf("  kept alive:       %8.0f posts/s  %6.3f ms CPU/post  %.3f connections/post\n",
              gKeptAlive.postsPerSecond, gKeptAlive.cpuMsPerPost, gKeptAlive.connectionsPerPost);
  std::printf("  fresh connection: %8.0f posts/s  %6.3f ms CPU/post  %.3f connections/post\n",
              gFresh.postsPerSecond, gFresh.cpuMsPerPost, gFresh.connectionsPerPost);
  if (gFresh.postsPerSecond > 0 && gKeptAlive.cpuMsPerPost > 0) {
    std::printf("  kept alive vs fresh: %.1fx the posts/s, %.1fx less CPU per post\n",
                gKeptAlive.postsPerSecond / gFresh.postsPerSecond,
                gFresh.cpuMsPerPost / gKeptAlive.cpuMsPerPost);
  }
  std::printf("  target >= 2000 posts/s kept alive:        %s\n", rateMet ? "met" : "NOT met");
  std::printf("  target <= 0.300 ms CPU/post kept alive:   %s\n", cpuMet ? "met" : "NOT met");
  return 0;
}
