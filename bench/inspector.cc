// The collector's inspector queries against a database of 100,000 events
// (40 sessions, 12 event types, data of about 200 bytes, arrivals spread
// over the last ten minutes). Targets, so that the page stays responsive:
// what it asks every second while live (new rows, totals) under 5 ms; a
// page of events, the session list and the chart under 50 ms; a free-text
// filter that matches few rows, which has to read every row, under 100 ms.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "collector/collector_store.h"

namespace {

using telvo::tool::CollectorStore;
using telvo::tool::PageQuery;

constexpr int kEvents = 100000;
constexpr int kSessions = 40;
constexpr int kTypes = 12;

std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string sessionId(int i) {
  char id[40];
  std::snprintf(id, sizeof id, "3f8f9d8a-c74f-4a98-9fd5-%012d", i);
  return id;
}

// Built once for the whole program, in a folder removed at exit.
CollectorStore& store() {
  static std::string folder = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "telvo-bench-XXXXXX").string();
    std::string made = mkdtemp(pattern.data()) ? pattern : std::string(".");
    std::atexit([] { std::filesystem::remove_all(folder); });
    return made;
  }();
  static std::unique_ptr<CollectorStore> db = [] {
    std::string error;
    auto opened =
        CollectorStore::open(folder + "/collector.db", CollectorStore::Mode::kReadWrite, &error);
    if (!opened) {
      std::fprintf(stderr, "%s\n", error.c_str());
      std::abort();
    }
    const std::int64_t start = nowMs() - 10 * 60 * 1000;
    for (int s = 0; s < kSessions; ++s) {
      telvo::tool::RequestRecord hello;
      hello.session = telvo::tool::SessionRow{};
      hello.session->id = sessionId(s);
      hello.session->receivedMs = hello.session->serviceMs = start;
      hello.session->application = "bench-app";
      hello.helloJson = "{}";
      opened->record(hello, &error);
    }
    // Batches of 100 from one session each, as a busy client posts them.
    for (int i = 0; i < kEvents; i += 100) {
      telvo::tool::RequestRecord batch;
      batch.sessionId = sessionId(i / 100 % kSessions);
      batch.receivedMs = start + static_cast<std::int64_t>(i) * 6;  // ten minutes in all
      std::vector<std::string> texts;
      texts.reserve(100);
      for (int j = i; j < i + 100; ++j) {
        telvo::tool::NewEvent row;
        row.type = "event_type_" + std::to_string(j % kTypes);
        row.eventMs = batch.receivedMs;
        texts.push_back(
            R"({"timestamp":)" + std::to_string(batch.receivedMs) + R"(,"title":"Episode )" +
            std::to_string(j % 997) +
            R"(","position":123.456,"player":{"volume":80,"muted":false,"quality":"hd"},)"
            R"("device":{"model":"TX-55LZ","os":"Linux 5.10"},"tags":["drama","serie"]})");
        row.dataJson = texts.back();
        batch.events.push_back(std::move(row));
      }
      opened->record(batch, &error);
    }
    return opened;
  }();
  return *db;
}

// One page of the event list as the page asks for it (previews of 200
// characters), with `narrow` applied to the query.
template <typename Narrow>
void timePage(benchmark::State& state, Narrow narrow) {
  PageQuery query;
  query.previewLength = 200;
  narrow(query);
  for (auto _ : state) benchmark::DoNotOptimize(store().eventPage(query));
}

void FirstPage(benchmark::State& state) {
  timePage(state, [](PageQuery&) {});
}

void PageOfOneType(benchmark::State& state) {
  timePage(state, [](PageQuery& q) { q.type = "event_type_7"; });
}

void PageOfOneSession(benchmark::State& state) {
  timePage(state, [](PageQuery& q) { q.sessionId = sessionId(17); });
}

void OlderPageDeepDown(benchmark::State& state) {
  timePage(state, [](PageQuery& q) { q.beforeId = 1000; });
}

// The worst case of a text filter: a rare match reads every row.
void TextMatchingFewRows(benchmark::State& state) {
  timePage(state, [](PageQuery& q) { q.text = "Episode 996\""; });
}

void NewSinceLastPoll(benchmark::State& state) {
  timePage(state, [](PageQuery& q) { q.afterId = kEvents - 10; });
}

void SessionSummaries(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(store().sessionSummaries(500, 200));
}

void EventTypes(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(store().eventTypes(200, 200));
}

void Totals(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(store().totals());
}

// The chart over the last five minutes: half the events.
void RateLastFiveMinutes(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(store().eventRate(nowMs() - 300000, 1000, 200));
}

BENCHMARK(FirstPage)->Unit(benchmark::kMillisecond);
BENCHMARK(PageOfOneType)->Unit(benchmark::kMillisecond);
BENCHMARK(PageOfOneSession)->Unit(benchmark::kMillisecond);
BENCHMARK(OlderPageDeepDown)->Unit(benchmark::kMillisecond);
BENCHMARK(TextMatchingFewRows)->Unit(benchmark::kMillisecond);
BENCHMARK(NewSinceLastPoll)->Unit(benchmark::kMillisecond);
BENCHMARK(SessionSummaries)->Unit(benchmark::kMillisecond);
BENCHMARK(EventTypes)->Unit(benchmark::kMillisecond);
BENCHMARK(Totals)->Unit(benchmark::kMillisecond);
BENCHMARK(RateLastFiveMinutes)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  store();  // filled before the first measurement
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
