// The collector's inspector queries against a database of 1,000,000 events
// (400 sessions, 12 event types, data of about 200 bytes, arrivals spread
// over the last ten minutes), read as the collector reads them: through a
// read-only connection with a time limit. Targets, so that the page stays
// responsive: what it asks every second while live (new rows, totals)
// under 5 ms; a page of events, the session list and the chart under
// 50 ms; a free-text search under 100 ms, whether it matches few rows or
// none. A search reads events newest first and answers with what it found
// after the collector's default slice (--search-slice-ms 50), saying where
// the next request goes on: the trigram index makes most searches complete
// in one request; a text whose every trigram is in every event, or one of
// fewer than three characters, reads every event and takes several (the
// Whole* cases follow one to its end).
//
// Filling the database takes a few minutes; it is made once per run in a
// temporary folder, or kept in $TELVO_BENCH_INSPECTOR_DIR (made there when
// missing, reused when present).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
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

constexpr int kEvents = 1000000;
constexpr int kSessions = 400;
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

std::unique_ptr<CollectorStore> openStore(const std::string& path, CollectorStore::Mode mode) {
  std::string error;
  auto opened = CollectorStore::open(path, mode, &error);
  if (!opened) {
    std::fprintf(stderr, "%s\n", error.c_str());
    std::abort();
  }
  return opened;
}

const std::string& folder() {
  static const std::string made = [] {
    if (const char* kept = std::getenv("TELVO_BENCH_INSPECTOR_DIR")) {
      std::filesystem::create_directories(kept);
      return std::string(kept);
    }
    std::string pattern = (std::filesystem::temp_directory_path() / "telvo-bench-XXXXXX").string();
    std::string temporary = mkdtemp(pattern.data()) ? pattern : std::string(".");
    std::atexit([] { std::filesystem::remove_all(folder()); });
    return temporary;
  }();
  return made;
}

// Stores the sessions and events, in batches of 100 as a busy client posts
// them.
void fill(CollectorStore& opened) {
  std::string error;
  const auto filling = std::chrono::steady_clock::now();
  const std::int64_t start = nowMs() - 10 * 60 * 1000;
  for (int s = 0; s < kSessions; ++s) {
    telvo::tool::RequestRecord hello;
    hello.session = telvo::tool::SessionRow{};
    hello.session->id = sessionId(s);
    hello.session->receivedMs = hello.session->serviceMs = start;
    hello.session->application = "bench-app";
    hello.helloJson = "{}";
    opened.record(hello, &error);
  }
  for (int i = 0; i < kEvents; i += 100) {
    telvo::tool::RequestRecord batch;
    batch.sessionId = sessionId(i / 100 % kSessions);
    batch.receivedMs = start + static_cast<std::int64_t>(i) * 6 / 10;  // ten minutes in all
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
    if (!opened.record(batch, &error)) {
      std::fprintf(stderr, "%s\n", error.c_str());
      std::abort();
    }
  }
  std::fprintf(stderr, "stored %d events in %.0f s\n", kEvents,
               std::chrono::duration<double>(std::chrono::steady_clock::now() - filling).count());
}

// Fills the database once for the whole program (unless a kept one is
// already full), then reads it as the inspector does.
CollectorStore& store() {
  static std::unique_ptr<CollectorStore> reader = [] {
    const std::string path = folder() + "/collector.db";
    auto writer = openStore(path, CollectorStore::Mode::kReadWrite);
    if (writer->totals().events < kEvents) fill(*writer);
    auto opened = openStore(path, CollectorStore::Mode::kReadOnly);
    opened->setTimeLimit(std::chrono::seconds(60));
    opened->setSearchSlice(std::chrono::milliseconds(50));
    return opened;
  }();
  return *reader;
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

// Searches: one in a thousand events matches; none matches though every
// trigram is in every event; none has its trigrams; none, by the first
// characters of a request's whole length (1,024) that the inspector takes.
void TextMatchingFewRows(benchmark::State& state) {
  timePage(state, [](PageQuery& q) { q.text = "Episode 996\""; });
}

void TextMatchingNoRowOfCommonTrigrams(benchmark::State& state) {
  timePage(state, [](PageQuery& q) { q.text = "hd\"},\"tags"; });
}

void TextMatchingNoRow(benchmark::State& state) {
  timePage(state, [](PageQuery& q) { q.text = "Season 12"; });
}

void LongTextMatchingNoRow(benchmark::State& state) {
  std::string text;
  while (text.size() < 1024) text += "Episode 996 of the drama serie, ";
  timePage(state, [&](PageQuery& q) { q.text = text.substr(0, 1024); });
}

// Not indexed: reads rows newest first until its slice is spent.
void TwoCharactersMatchingNoRow(benchmark::State& state) {
  timePage(state, [](PageQuery& q) { q.text = "zq"; });
}

// A search followed to its end as the page follows it (before = where the
// last answer stopped): the requests it took and the longest of them.
void timeWholeSearch(benchmark::State& state, const std::string& text) {
  double requests = 0, longest = 0;
  for (auto _ : state) {
    PageQuery query;
    query.previewLength = 200;
    query.text = text;
    requests = 0;
    while (true) {
      const auto asked = std::chrono::steady_clock::now();
      const auto page = store().eventPage(query);
      longest = std::max(longest, std::chrono::duration<double, std::milli>(
                                      std::chrono::steady_clock::now() - asked)
                                      .count());
      ++requests;
      if (!page.searchedTo) break;
      query.beforeId = page.searchedTo;
    }
  }
  state.counters["requests"] = requests;
  state.counters["longest_ms"] = longest;
}

void WholeSearchOfCommonTrigramsMatchingNoRow(benchmark::State& state) {
  timeWholeSearch(state, "hd\"},\"tags");
}

void WholeSearchOfTwoCharactersMatchingNoRow(benchmark::State& state) {
  timeWholeSearch(state, "zq");
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

// The chart over the last five minutes of arrivals: half the events.
void RateLastFiveMinutes(benchmark::State& state) {
  PageQuery newest;
  newest.limit = 1;
  const std::int64_t last = store().eventPage(newest).rows.at(0).receivedMs;
  for (auto _ : state) benchmark::DoNotOptimize(store().eventRate(last - 300000, 1000, 200));
}

BENCHMARK(FirstPage)->Unit(benchmark::kMillisecond);
BENCHMARK(PageOfOneType)->Unit(benchmark::kMillisecond);
BENCHMARK(PageOfOneSession)->Unit(benchmark::kMillisecond);
BENCHMARK(OlderPageDeepDown)->Unit(benchmark::kMillisecond);
BENCHMARK(TextMatchingFewRows)->Unit(benchmark::kMillisecond);
BENCHMARK(TextMatchingNoRowOfCommonTrigrams)->Unit(benchmark::kMillisecond);
BENCHMARK(TextMatchingNoRow)->Unit(benchmark::kMillisecond);
BENCHMARK(LongTextMatchingNoRow)->Unit(benchmark::kMillisecond);
BENCHMARK(TwoCharactersMatchingNoRow)->Unit(benchmark::kMillisecond);
BENCHMARK(WholeSearchOfCommonTrigramsMatchingNoRow)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(WholeSearchOfTwoCharactersMatchingNoRow)->Unit(benchmark::kMillisecond)->Iterations(1);
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
