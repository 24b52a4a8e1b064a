// What the library costs a device, through the public interface only: one
// client from Telvo::create on the default platform (the library's own main
// queue, background queue and libcurl transport) against an HTTPS service on
// 127.0.0.1 in a forked child, so that this process's CPU time and context
// switches are the library's and the bench's alone. The service enables
// reporting with timer batching every 5 s. Figures and targets:
//  - library CPU and extra context switches per event at an app's pace
//    (1,000/s for 3 s, 100/s for 5 s; 8 flat fields), against the same pacing
//    loop without sending; timer posts in the window and the flush of what
//    it left count: <= 5 us, <= 0.1.
//  - idle wake-ups of every thread but this one, over 10 s, per thread:
//    <= the batch timer's 0.2/s + 0.1/s.
//  - threads and resident memory of one ready client; one sendEvent timed on
//    its own; 1,000,000 events back to back up to flush returning; 32 threads
//    flooding the C interface for 5 s, and resident memory meanwhile.
// A summary with figures, targets and ratios is printed after the benchmarks.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <malloc.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "realistic_event.h"
#include "support/https_test_server.h"
#include "telvo/telvo.h"
#include "telvo/telvo_c.h"

namespace {

using SteadyClock = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct Service {
  pid_t pid = -1;
  int port = -1;
  std::string caFile;
  std::string configBase() const {
    return "https://127.0.0.1:" + std::to_string(port) + "/config/";
  }
} gService;

// The service, in a child forked before this process has any other thread.
// It tells its port and certificate through a pipe, and serves until SIGTERM
// (or until the parent dies).
bool startService() {
  int info[2];
  if (pipe(info) != 0) return false;
  const pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(info[0]);
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    sigprocmask(SIG_BLOCK, &term, nullptr);  // before the server's threads, which inherit it
    {
      // Connections kept alive as a service's are (nginx keeps them 75 s),
      // well past the 5 s between timed posts.
      telvo::test::HttpsTestServer::Options serverOptions;
      serverOptions.keepAliveTimeoutSeconds = 120;
      telvo::test::HttpsTestServer server(serverOptions);
      const std::string document = telvo::Json{{"default",
                                                {{"enabled", true},
                                                 {"batchMode", "timer"},
                                                 {"batchModeAmount", 5},
                                                 {"servicesUrl", server.url()},
                                                 {"helloApi", "/api/hello"},
                                                 {"batchApi", "/api/batch"}}}}
                                       .dump();
      server.route("GET", "/config/Player/den/telvoanalytics.json",
                   [&](const httplib::Request&, httplib::Response& response) {
                     response.set_content(document, "application/json");
                   });
      server.route("POST", "/api/hello", [](const httplib::Request&, httplib::Response& response) {
        const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::system_clock::now().time_since_epoch());
        response.set_content(
            telvo::Json{{"sessionId", "S-1"}, {"throttled", false}, {"timestamp", now.count()}}
                .dump(),
            "application/json");
      });
      // The server keeps every request it sees: forget them, or a flood fills
      // the child.
      for (const char* path : {"/api/batch.json", "/api/postEvent/error"}) {
        server.route("POST", path, [&](const httplib::Request&, httplib::Response& response) {
          server.reset();
          response.set_content("{}", "application/json");
        });
      }
      const std::string line = std::to_string(server.port()) + "\n" + server.certificateFile();
      if (write(info[1], line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(1);
      close(info[1]);
      int signal = 0;
      sigwait(&term, &signal);
    }  // stops the server and removes its certificate
    _exit(0);
  }
  close(info[1]);
  std::string text;
  char buffer[512];
  for (ssize_t n; (n = read(info[0], buffer, sizeof buffer)) > 0;) text.append(buffer, n);
  close(info[0]);
  const auto newline = text.find('\n');
  if (newline == std::string::npos) return false;
  gService = {pid, std::stoi(text.substr(0, newline)), text.substr(newline + 1)};
  return true;
}

// Stops the child and reaps it; SIGKILL when it has not ended within 3 s.
void stopService() {
  if (gService.pid <= 0) return;
  kill(gService.pid, SIGTERM);
  const auto deadline = SteadyClock::now() + 3s;
  while (waitpid(gService.pid, nullptr, WNOHANG) == 0) {
    if (SteadyClock::now() > deadline) {
      kill(gService.pid, SIGKILL);
      waitpid(gService.pid, nullptr, 0);
      break;
    }
    std::this_thread::sleep_for(10ms);
  }
}

// --- What the process uses.

// User + system CPU seconds and voluntary + involuntary switches, every thread.
struct Usage {
  double cpuSeconds = 0, switches = 0;
};
Usage operator-(Usage a, Usage b) { return {a.cpuSeconds - b.cpuSeconds, a.switches - b.switches}; }

Usage processUsage() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
  return {seconds(usage.ru_utime) + seconds(usage.ru_stime),
          static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw)};
}

// The number on the "name:" line of a /proc status file (kB for memory), 0 when absent.
long statusField(const std::string& name, const std::string& file = "/proc/self/status") {
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, name.size() + 1, name + ":") == 0)
      return std::atol(line.c_str() + name.size() + 1);
  }
  return 0;
}
double mib(long kB) { return kB / 1024.0; }

struct ThreadSample {
  std::string name;  // "(unnamed)" when it still has the process's name
  long switches = 0;
  double cpuSeconds = 0;  // on a CPU since it started (schedstat, in ns)
};

// Every thread of the process but the calling (main) one, by id.
std::map<int, ThreadSample> otherThreads() {
  std::map<int, ThreadSample> threads;
  std::string processName;
  std::ifstream("/proc/self/comm") >> processName;
  DIR* dir = opendir("/proc/self/task");
  if (!dir) return threads;
  while (dirent* entry = readdir(dir)) {
    const int tid = std::atoi(entry->d_name);
    if (tid <= 0 || tid == getpid()) continue;
    const std::string base = "/proc/self/task/" + std::to_string(tid);
    ThreadSample& sample = threads[tid];
    std::ifstream(base + "/comm") >> sample.name;
    if (sample.name == processName) sample.name = "(unnamed)";
    sample.switches = statusField("voluntary_ctxt_switches", base + "/status") +
                      statusField("nonvoluntary_ctxt_switches", base + "/status");
    double ns = 0;
    std::ifstream(base + "/schedstat") >> ns;
    sample.cpuSeconds = ns / 1e9;
  }
  closedir(dir);
  return threads;
}

bool waitUntil(const std::function<bool()>& done, std::chrono::seconds limit) {
  const auto deadline = SteadyClock::now() + limit;
  while (!done()) {
    if (SteadyClock::now() > deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

double percentile(std::vector<double> samples, double q) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  return samples[static_cast<std::size_t>(q * (samples.size() - 1))];
}

// --- The client and its figures.

std::shared_ptr<telvo::Telvo> gClient;


struct StartFigures {
  std::size_t threadsBefore = 0;
  std::map<int, ThreadSample> libraryThreads;
  double rssBeforeMiB = 0, rssReadyMiB = 0, rssSecondMiB = 0;
} gStart;

std::shared_ptr<telvo::Telvo> readyClient() {
  // A queue far larger than the burst below, which measures capture and
  // delivery, not the bound (the flood measures that).
  telvo::ClientOptions options;
  options.maxQueuedBytes = std::size_t(1) << 30;
  auto client =
      telvo::Telvo::create(std::make_shared<telvo::TelvoConfig>("linux", "12", "den", "3.0",
                                                                "Player", gService.configBase()),
                           "bench", "production", telvo::Platform{}, options);
  if (!waitUntil([&] { return client->isInitialized(); }, 20s)) {
    std::fprintf(stderr, "bench: the client did not become ready\n");
    std::exit(1);
  }
  return client;
}

// The first client: threads and memory before it, once it is ready, and once
// a second client on the same platform is ready too (released afterwards).
void startClient() {
  gStart.threadsBefore = otherThreads().size() + 1;
  gStart.rssBeforeMiB = mib(statusField("VmRSS"));
  gClient = readyClient();
  gStart.libraryThreads = otherThreads();
  gStart.rssReadyMiB = mib(statusField("VmRSS"));
  auto second = readyClient();
  gStart.rssSecondMiB = mib(statusField("VmRSS"));
  second->flush(5s);
}

struct PacedFigures {
  int perSecond = 0;
  long events = 0;
  double cpuUsPerEvent = 0, switchesPerEvent = 0, flushAfterUsPerEvent = 0;
  // The same CPU read where it is spent: the library's threads, and the
  // caller's time inside its calls (field building included).
  double directUsPerEvent = 0, threadsUsPerEvent = 0, callsUsPerEvent = 0;
  // The reference call's CPU at the same pace.
  double referenceUsPerCall = 0;
};
std::map<int, PacedFigures> gPaced;

// CPU time of the calling thread.
double threadCpu() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// What one read of threadCpu() adds to a measured interval.
double threadCpuReadCost() {
  constexpr int kReads = 10000;
  const double start = threadCpu();
  for (int i = 0; i < kReads; ++i) threadCpu();
  return (threadCpu() - start) / (kReads + 1);
}

// CPU time of every thread but this one: the library's.
double otherThreadsCpu() {
  double seconds = 0;
  for (const auto& [tid, sample] : otherThreads()) seconds += sample.cpuSeconds;
  return seconds;
}

// A reference for what any call costs at an app's pace on this machine: the
// same eight fields formatted with snprintf into a growing text (about as
// much work as the library's call when both are warm).
std::string gReferenceText;
void referenceCall(long i) {
  char line[256];
  const int n = std::snprintf(line, sizeof line,
                              "{\"title\":\"%s\",\"position\":%ld,\"duration\":%.1f,\"bitrate\":%d,"
                              "\"cdn\":\"%s\",\"muted\":%s,\"language\":\"%s\",\"profile\":\"%s\"}",
                              "Big Buck Bunny", i, 5960.5, 4500000, "edge-03.example.net", "false",
                              "en-GB", "main-1080p");
  if (gReferenceText.size() > (64u << 10)) gReferenceText.clear();
  gReferenceText.append(line, static_cast<std::size_t>(n > 0 ? n : 0));
}

// The reference call back to back, warm: CPU per call.
double referenceWarmSeconds() {
  constexpr int kCalls = 100000;
  const double start = threadCpu();
  for (int i = 0; i < kCalls; ++i) referenceCall(i);
  return (threadCpu() - start) / kCalls;
}

enum class Work { kNothing, kSend, kReference };

// `perSecond` calls for `seconds`, paced on the steady clock; each call sends
// one event (kSend), formats the reference text (kReference) or does
// nothing. `inCalls` gets the CPU time spent inside the calls.
Usage pacedLoop(telvo::Telvo& client, Work work, int perSecond, double seconds,
                double* inCalls = nullptr) {
  const auto period = std::chrono::nanoseconds(1'000'000'000 / perSecond);
  const long calls = static_cast<long>(perSecond * seconds);
  const double readCost = threadCpuReadCost();
  double called = 0;
  const Usage before = processUsage();
  auto next = SteadyClock::now();
  for (long i = 0; i < calls; ++i) {
    next += period;
    std::this_thread::sleep_until(next);
    if (work == Work::kNothing) continue;
    const double start = threadCpu();
    if (work == Work::kSend) {
      telvo::sendRealisticFields(client, i);
    } else {
      referenceCall(i);
    }
    called += threadCpu() - start - readCost;
  }
  const Usage used = processUsage() - before;
  if (inCalls) *inCalls = called;
  return used;
}

// Baseline and sending windows alternate, kRounds of each, and the median
// of the rounds' differences is kept: another process's work in one window
// (this machine is shared) moves one round, not the figure.
constexpr int kRounds = 3;

PacedFigures pacedCost(telvo::Telvo& client, int perSecond, double seconds) {
  client.flush(10s);  // nothing left over from earlier work
  std::vector<double> cpu, switches, rest, threads, calls, reference;
  for (int round = 0; round < kRounds; ++round) {
    const Usage baseline = pacedLoop(client, Work::kNothing, perSecond, seconds);
    double inReference = 0;
    pacedLoop(client, Work::kReference, perSecond, seconds, &inReference);
    reference.push_back(inReference);
    const double threadsBefore = otherThreadsCpu();
    double inCalls = 0;
    const Usage sending = pacedLoop(client, Work::kSend, perSecond, seconds, &inCalls);
    // What the window left to deliver counts too: whether the batch timer
    // fired once or twice in a window moves the window's own figure by a
    // whole post, so every event's delivery is counted here exactly once.
    const Usage before = processUsage();
    client.flush(10s);
    const Usage flushed = processUsage() - before;
    rest.push_back(flushed.cpuSeconds);
    cpu.push_back(sending.cpuSeconds + flushed.cpuSeconds - baseline.cpuSeconds);
    switches.push_back(sending.switches + flushed.switches - baseline.switches);
    threads.push_back(otherThreadsCpu() - threadsBefore);
    calls.push_back(inCalls);
  }
  PacedFigures f;
  f.perSecond = perSecond;
  f.events = static_cast<long>(perSecond * seconds);
  f.cpuUsPerEvent = percentile(cpu, 0.5) * 1e6 / f.events;
  f.switchesPerEvent = percentile(switches, 0.5) / f.events;
  f.flushAfterUsPerEvent = percentile(rest, 0.5) * 1e6 / f.events;
  f.threadsUsPerEvent = percentile(threads, 0.5) * 1e6 / f.events;
  f.callsUsPerEvent = percentile(calls, 0.5) * 1e6 / f.events;
  f.directUsPerEvent = f.threadsUsPerEvent + f.callsUsPerEvent;
  f.referenceUsPerCall = percentile(reference, 0.5) * 1e6 / f.events;
  return f;
}

struct IdleFigures {
  double seconds = 0, wakeupsPerSecond = 0;
  std::map<int, std::pair<std::string, double>> perThread;  // tid: name, wake-ups/s
} gIdle;

IdleFigures idleWakeups(telvo::Telvo& client, double seconds) {
  client.flush(10s);
  const auto before = otherThreads();
  const auto start = SteadyClock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  const auto after = otherThreads();
  IdleFigures f;
  f.seconds = std::chrono::duration<double>(SteadyClock::now() - start).count();
  for (const auto& [tid, sample] : after) {
    const auto it = before.find(tid);
    const long woke = sample.switches - (it == before.end() ? 0 : it->second.switches);
    f.perThread[tid] = {sample.name, woke / f.seconds};
    f.wakeupsPerSecond += woke / f.seconds;
  }
  return f;
}

struct BurstFigures {
  double medianNs = 0, p99Ns = 0, eventsPerSecond = 0;
  bool flushed = false;
} gBurst;

void callLatency(telvo::Telvo& client, int calls, BurstFigures* f) {
  std::vector<double> samples(calls);
  for (int i = 0; i < calls; ++i) {
    const auto start = SteadyClock::now();
    telvo::sendRealisticFields(client, i);
    samples[i] = std::chrono::duration<double, std::nano>(SteadyClock::now() - start).count();
  }
  client.flush(30s);
  f->medianNs = percentile(samples, 0.5);
  f->p99Ns = percentile(samples, 0.99);
}

void sustainedBurst(telvo::Telvo& client, long events, BurstFigures* f) {
  const auto start = SteadyClock::now();
  for (long i = 0; i < events; ++i) telvo::sendRealisticFields(client, i);
  f->flushed = client.flush(30s);
  f->eventsPerSecond = events / std::chrono::duration<double>(SteadyClock::now() - start).count();
}

struct FloodFigures {
  int threads = 0;
  double seconds = 0, callsPerSecond = 0, flushSeconds = 0;
  // Resident memory at the start, and its growth: the highest sample while
  // sending, VmHWM over sending and flush, and what is left after the flush.
  double rssStartMiB = 0, sendingPeakMiB = 0, hwmMiB = 0, afterFlushMiB = 0;
  bool stoppedByGuard = false;
  int flushStatus = -1;
  telvo_stats stats{};
} gFlood;

// Keeps the run bounded should the client's bounds fail.
constexpr double kFloodGuardMiB = 3072;

const telvo_field kFloodFields[] = {{"title", TELVO_FIELD_TEXT, "Big Buck Bunny", 0, 0},
                                    {"position", TELVO_FIELD_INTEGER, nullptr, 0, 0},
                                    {"duration", TELVO_FIELD_NUMBER, nullptr, 0, 5960.5},
                                    {"bitrate", TELVO_FIELD_INTEGER, nullptr, 4500000, 0},
                                    {"cdn", TELVO_FIELD_TEXT, "edge-03.example.net", 0, 0},
                                    {"muted", TELVO_FIELD_BOOL, nullptr, 0, 0},
                                    {"language", TELVO_FIELD_TEXT, "en-GB", 0, 0},
                                    {"profile", TELVO_FIELD_TEXT, "main-1080p", 0, 0}};

// `threadCount` threads send through a C client of its own as fast as they
// can for `seconds` (less when the guard trips), then one flush.
FloodFigures cFlood(int threadCount, double seconds) {
  FloodFigures f;
  f.threads = threadCount;
  telvo_config* config = nullptr;
  telvo_config_create("linux", "12", "den", "3.0", "Player", gService.configBase().c_str(),
                      &config);
  telvo_client* client = nullptr;
  telvo_client_create(config, "flood", "production", &client);
  telvo_config_release(config);
  int ready = 0;
  if (!waitUntil([&] { return telvo_client_is_initialized(client, &ready) == TELVO_OK && ready; },
                 20s)) {
    std::fprintf(stderr, "bench: the flood's client did not become ready\n");
    std::exit(1);
  }

  malloc_trim(0);  // start from what is in use, not from what earlier bursts left free
  std::ofstream("/proc/self/clear_refs") << "5";  // VmHWM back to VmRSS
  const long rssStart = statusField("VmRSS"), hwmStart = statusField("VmHWM");
  long rssPeak = rssStart;
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> calls{0};
  std::vector<std::thread> senders;
  const auto start = SteadyClock::now();
  for (int t = 0; t < threadCount; ++t) {
    senders.emplace_back([&] {
      telvo_field fields[8];
      std::copy(std::begin(kFloodFields), std::end(kFloodFields), fields);
      std::uint64_t mine = 0;
      while (!stop.load(std::memory_order_relaxed)) {
        fields[1].integer = static_cast<std::int64_t>(mine++);
        telvo_send_event_fields(client, "video_progress", fields, 8);
      }
      calls += mine;
    });
  }
  while (SteadyClock::now() - start < std::chrono::duration<double>(seconds)) {
    std::this_thread::sleep_for(50ms);
    rssPeak = std::max(rssPeak, statusField("VmRSS"));
    if ((f.stoppedByGuard = mib(rssPeak - rssStart) > kFloodGuardMiB)) break;
  }
  stop = true;
  for (auto& sender : senders) sender.join();
  f.seconds = std::chrono::duration<double>(SteadyClock::now() - start).count();
  f.callsPerSecond = calls / f.seconds;

  const auto flushStart = SteadyClock::now();
  f.flushStatus = telvo_flush(client, 20000);
  f.flushSeconds = std::chrono::duration<double>(SteadyClock::now() - flushStart).count();
  f.rssStartMiB = mib(rssStart);
  f.sendingPeakMiB = mib(rssPeak - rssStart);
  f.hwmMiB = mib(statusField("VmHWM") - hwmStart);
  f.afterFlushMiB = mib(statusField("VmRSS") - rssStart);
  telvo_client_stats(client, &f.stats);
  telvo_client_release(client);
  return f;
}

// --- Benchmarks: each runs once and keeps its figures for the summary.

void BM_PacedSend(benchmark::State& state) {
  const int perSecond = static_cast<int>(state.range(0));
  for (auto _ : state)
    gPaced[perSecond] = pacedCost(*gClient, perSecond, perSecond >= 1000 ? 3 : 5);
  state.counters["lib_cpu_us_per_event"] = gPaced[perSecond].cpuUsPerEvent;
  state.counters["extra_switches_per_event"] = gPaced[perSecond].switchesPerEvent;
}
BENCHMARK(BM_PacedSend)->Arg(1000)->Arg(100)->Iterations(1)->Unit(benchmark::kSecond);

void BM_Idle(benchmark::State& state) {
  for (auto _ : state) gIdle = idleWakeups(*gClient, 10);
  state.counters["wakeups_per_s"] = gIdle.wakeupsPerSecond;
}
BENCHMARK(BM_Idle)->Iterations(1)->Unit(benchmark::kSecond);

void BM_SendEventCall(benchmark::State& state) {
  for (auto _ : state) callLatency(*gClient, 100000, &gBurst);
  state.counters["median_ns"] = gBurst.medianNs;
  state.counters["p99_ns"] = gBurst.p99Ns;
}
BENCHMARK(BM_SendEventCall)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_Burst1M(benchmark::State& state) {
  for (auto _ : state) sustainedBurst(*gClient, 1000000, &gBurst);
  state.counters["events_per_s"] = gBurst.eventsPerSecond;
}
BENCHMARK(BM_Burst1M)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_CFlood(benchmark::State& state) {
  for (auto _ : state) gFlood = cFlood(32, 5);
  state.counters["rss_peak_growth_MiB"] = gFlood.sendingPeakMiB;
  state.counters["hwm_growth_MiB"] = gFlood.hwmMiB;
}
BENCHMARK(BM_CFlood)->Iterations(1)->Unit(benchmark::kSecond);

const char* verdict(bool met) { return met ? "met" : "NOT met"; }

void printSummary() {
  std::printf(
      "\nSummary (service in a child process; CPU and switches = this process; ratios = "
      "figure / target)\n");
  std::printf("  threads: %zu before the first client, %zu once ready:", gStart.threadsBefore,
              gStart.libraryThreads.size() + 1);
  for (const auto& [tid, t] : gStart.libraryThreads) std::printf(" %s[%d]", t.name.c_str(), tid);
  std::printf(
      "\n  resident memory: %.1f MiB before, %.1f MiB with one ready client (+%.1f), "
      "%.1f MiB with a second (+%.1f)\n",
      gStart.rssBeforeMiB, gStart.rssReadyMiB, gStart.rssReadyMiB - gStart.rssBeforeMiB,
      gStart.rssSecondMiB, gStart.rssSecondMiB - gStart.rssReadyMiB);
  std::printf("  process CPU minus the pacing loop alone (each window's posts included):\n");
  std::printf("  %-7s %7s  %-27s %-27s %s\n", "pace", "events/window", "lib CPU us/event (<= 5)",
              "switches/event (<= 0.1)", "of the CPU: the flush after, us/event");
  for (int rate : {1000, 100}) {
    const PacedFigures& p = gPaced[rate];
    std::printf("  %4d/s %8ld  %8.2f %-7s %5.1fx    %8.3f %-7s %5.1fx    %8.2f\n", rate, p.events,
                p.cpuUsPerEvent, verdict(p.cpuUsPerEvent <= 5), p.cpuUsPerEvent / 5,
                p.switchesPerEvent, verdict(p.switchesPerEvent <= 0.1), p.switchesPerEvent / 0.1,
                p.flushAfterUsPerEvent);
  }
  std::printf(
      "  the same CPU read where it is spent (the difference above carries the noise of the "
      "pacing loop's own wake-ups), and a reference call (snprintf of the same fields) at the "
      "same pace:\n");
  for (int rate : {1000, 100}) {
    const PacedFigures& p = gPaced[rate];
    std::printf(
        "  %4d/s   library threads %.2f + inside the calls %.2f = %.2f us/event (<= 5: %s, "
        "%.1fx); reference call %.2f us (calls / reference %.1fx)\n",
        rate, p.threadsUsPerEvent, p.callsUsPerEvent, p.directUsPerEvent,
        verdict(p.directUsPerEvent <= 5), p.directUsPerEvent / 5, p.referenceUsPerCall,
        p.callsUsPerEvent / p.referenceUsPerCall);
  }
  std::printf(
      "  (back to back, warm, the reference call takes %.0f ns and sendEvent about the median "
      "below: a call at 100/s finds the caches cold)\n",
      referenceWarmSeconds() * 1e9);
  std::printf(
      "  idle wake-ups, every thread but main, over %.1f s: %.2f/s (<= timer 0.20/s + "
      "0.10/s: %s, %.1fx)\n",
      gIdle.seconds, gIdle.wakeupsPerSecond, verdict(gIdle.wakeupsPerSecond <= 0.3),
      gIdle.wakeupsPerSecond / 0.3);
  for (const auto& [tid, t] : gIdle.perThread)
    std::printf("    %-16s [%d] %6.2f/s\n", t.first.c_str(), tid, t.second);
  std::printf("  one sendEvent (8 fields), 100,000 calls: median %.0f ns, p99 %.0f ns\n",
              gBurst.medianNs, gBurst.p99Ns);
  std::printf("  burst of 1,000,000 up to flush returning: %.0f events/s (flush %s)\n",
              gBurst.eventsPerSecond, gBurst.flushed ? "complete" : "INCOMPLETE");
  std::printf("  flood, %d threads on the C interface for %.1f s%s: %.0f calls/s\n", gFlood.threads,
              gFlood.seconds, gFlood.stoppedByGuard ? " (cut short by the bench's guard)" : "",
              gFlood.callsPerSecond);
  std::printf(
      "    resident memory %.1f MiB at the start; growth: peak while sending +%.1f MiB, "
      "VmHWM (sending and flush) +%.1f MiB, after the flush +%.1f MiB\n",
      gFlood.rssStartMiB, gFlood.sendingPeakMiB, gFlood.hwmMiB, gFlood.afterFlushMiB);
  std::printf("    flush: %s in %.1f s\n", telvo_status_message(gFlood.flushStatus),
              gFlood.flushSeconds);
  const telvo_stats& c = gFlood.stats;
  const std::uint64_t dropped = c.events_dropped_queue_full + c.events_dropped_too_large +
                                c.events_dropped_backlog + c.events_dropped_unwritable;
  std::printf(
      "    counters: accepted %llu = posted %llu + dropped %llu (queue full %llu, backlog %llu) + "
      "failed %llu + queued %llu: %s; posts %llu (%llu failed)\n",
      static_cast<unsigned long long>(c.events_accepted),
      static_cast<unsigned long long>(c.events_posted), static_cast<unsigned long long>(dropped),
      static_cast<unsigned long long>(c.events_dropped_queue_full),
      static_cast<unsigned long long>(c.events_dropped_backlog),
      static_cast<unsigned long long>(c.events_failed),
      static_cast<unsigned long long>(c.events_queued),
      c.events_accepted == c.events_posted + dropped + c.events_failed + c.events_queued
          ? "adds up"
          : "DOES NOT ADD UP",
      static_cast<unsigned long long>(c.posts_made),
      static_cast<unsigned long long>(c.posts_failed));
  const telvo::ClientOptions bounds;
  const double budgetMiB =
      (bounds.maxQueuedBytes + bounds.maxPostBytes + bounds.maxBacklogBytes) / 1048576.0 + 64;
  std::printf("    memory growth %.1f MiB (<= the bounds + 64 = %.0f MiB: %s)\n", gFlood.hwmMiB,
              budgetMiB, verdict(gFlood.hwmMiB <= budgetMiB));
}

}  // namespace

int main(int argc, char** argv) {
  if (!startService()) {
    std::fprintf(stderr, "bench: cannot start the HTTPS service process\n");
    return 1;
  }
  // The client's stored cookie goes to a folder of its own.
  char home[] = "/tmp/telvo-device-cost-XXXXXX";
  if (!mkdtemp(home)) return 1;
  setenv("TELVO_HOME", home, 1);
  telvo::TelvoTransport::Options options;
  options.caFile = gService.caFile;
  telvo::TelvoTransport::setOptions(options);

  startClient();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  printSummary();

  gClient.reset();
  telvo::shutdown(2s);
  stopService();
  std::filesystem::remove_all(home);
  return 0;
}
