// Envelope and Base64 speed. Prints, after the usual benchmark table, the
// envelope time as a ratio of zlib's compress alone on the same JSON text
// (target: at most 1.10) and the Base64 rates (targets: encode 1 GB/s,
// decode 700 MB/s of Base64 text).
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "telvo/base64.h"
#include "telvo/envelope.h"

namespace {

// A batch post body of `count` events of about 270 bytes each: nested
// dictionaries, numbers and non-ASCII text, with values that vary.
std::string batchJson(int count) {
  static const char* const kTitles[] = {"Épisode 12 – «L’été»", "Ночной экспресс", "東京の夜",
                                        "Fußball live: Köln – Bremen", "Café com leite ☕"};
  static const char* const kTypes[] = {"video_play", "video_pause", "ad_start", "page_view",
                                       "search"};
  std::mt19937 rng(42);
  std::string json = R"({"sessionId":"5F2C1D7E-3A44-4B8E-9C1A-0D6E2B7F9A31","events":[)";
  char event[512];
  for (int i = 0; i < count; ++i) {
    const long long timestamp = 1763800000123LL + i * 137 + rng() % 100;
    std::snprintf(event, sizeof event,
                  R"(%s{"eventType":"%s","eventData":{"title":"%s","position":%.3f,)"
                  R"("duration":%u,"timestamp":%lld,"player":{"volume":%u,"muted":%s,)"
                  R"("quality":"%s"},"device":{"model":"TX-55LZ%u","os":"Linux 5.10.%u"},)"
                  R"("tags":["drama","série %u"]}})",
                  i == 0 ? "" : ",", kTypes[rng() % 5], kTitles[rng() % 5],
                  static_cast<double>(rng() % 3600000) / 1000.0,
                  static_cast<unsigned>(600 + rng() % 6000), timestamp,
                  static_cast<unsigned>(rng() % 101), rng() % 2 ? "true" : "false",
                  rng() % 2 ? "1080p" : "720p", static_cast<unsigned>(rng() % 900),
                  static_cast<unsigned>(rng() % 200), static_cast<unsigned>(rng() % 40));
    json += event;
  }
  json += "]}";
  return json;
}

const std::string& batch(int count) {
  static std::map<int, std::string> cache;
  auto [it, added] = cache.try_emplace(count);
  if (added) it->second = batchJson(count);
  return it->second;
}

double threadSeconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// The envelope and zlib's compress alone, alternating on the same JSON text in
// every iteration, so that both see the same machine load, caches and heap
// state; the iteration time is the envelope's. Counters: both times (us) and
// their ratio.
void BM_EnvelopeVsCompress(benchmark::State& state) {
  const std::string& json = batch(static_cast<int>(state.range(0)));
  const auto* source = reinterpret_cast<const Bytef*>(json.data());
  std::vector<Bytef> packed(compressBound(json.size()));
  double envelopeTotal = 0, compressTotal = 0;
  for (auto _ : state) {
    const double t0 = threadSeconds();
    benchmark::DoNotOptimize(telvo::buildTelvoJsonParameter(json));
    const double t1 = threadSeconds();
    uLongf length = packed.size();
    benchmark::DoNotOptimize(compress(packed.data(), &length, source, json.size()));
    benchmark::ClobberMemory();
    const double t2 = threadSeconds();
    envelopeTotal += t1 - t0;
    compressTotal += t2 - t1;
    state.SetIterationTime(t1 - t0);
  }
  const auto n = static_cast<double>(state.iterations());
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * json.size()));
  state.counters["event_bytes"] = static_cast<double>(json.size()) / state.range(0);
  state.counters["envelope_us"] = envelopeTotal / n * 1e6;
  state.counters["compress_us"] = compressTotal / n * 1e6;
  state.counters["ratio"] = envelopeTotal / compressTotal;
}

constexpr std::size_t kBase64Input = 1 << 20;

const telvo::Bytes& randomBytes() {
  static const telvo::Bytes bytes = [] {
    std::mt19937 rng(7);
    telvo::Bytes b(kBase64Input);
    for (auto& x : b) x = static_cast<std::uint8_t>(rng());
    return b;
  }();
  return bytes;
}

void BM_Base64Encode(benchmark::State& state) {
  const telvo::Bytes& bytes = randomBytes();
  for (auto _ : state) benchmark::DoNotOptimize(telvo::base64EncodedString(bytes));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

void BM_Base64Decode(benchmark::State& state) {
  const std::string text = *telvo::base64EncodedString(randomBytes());
  for (auto _ : state) benchmark::DoNotOptimize(telvo::dataWithBase64EncodedString(text));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

BENCHMARK(BM_EnvelopeVsCompress)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10000)
    ->UseManualTime()
    ->Repetitions(5)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Base64Encode)->Repetitions(5)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Base64Decode)->Repetitions(5)->Unit(benchmark::kMicrosecond);

// Collects every repetition of every benchmark, by "function/argument":
// CPU seconds per iteration and the user counters.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  struct Sample {
    double seconds;
    std::map<std::string, double> counters;
  };

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
      Sample sample{run.cpu_accumulated_time / static_cast<double>(run.iterations), {}};
      for (const auto& [name, counter] : run.counters) sample.counters[name] = counter.value;
      samples_[run.run_name.function_name + "/" + run.run_name.args].push_back(sample);
    }
  }

  // Median over the repetitions of `value(sample)`; 0 when the benchmark did not run.
  template <typename F>
  double median(const std::string& key, F value) const {
    auto it = samples_.find(key);
    if (it == samples_.end() || it->second.empty()) return 0;
    std::vector<double> values;
    for (const Sample& s : it->second) values.push_back(value(s));
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
  }

 private:
  std::map<std::string, std::vector<Sample>> samples_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  auto counter = [](const char* name) {
    return [name](const SummaryReporter::Sample& s) {
      auto it = s.counters.find(name);
      return it == s.counters.end() ? 0.0 : it->second;
    };
  };
  auto seconds = [](const SummaryReporter::Sample& s) { return s.seconds; };

  std::printf("\nSummary (median of the repetitions, CPU time)\n");
  std::printf("%-30s %12s %12s %8s  %s\n", "envelope / compress", "envelope us", "compress us",
              "ratio", "target <= 1.10");
  for (int count : {100, 1000, 10000}) {
    const std::string key = "BM_EnvelopeVsCompress/" + std::to_string(count);
    const double ratio = reporter.median(key, counter("ratio"));
    if (ratio == 0) continue;
    const std::string label =
        std::to_string(count) + " events (" + std::to_string(batch(count).size() / 1024) + " KiB)";
    std::printf("%-30s %12.1f %12.1f %8.3f  %s\n", label.c_str(),
                reporter.median(key, counter("envelope_us")),
                reporter.median(key, counter("compress_us")), ratio,
                ratio <= 1.10 ? "met" : "NOT MET");
  }
  const double encode = reporter.median("BM_Base64Encode/", seconds);
  if (encode > 0) {
    const double rate = static_cast<double>(kBase64Input) / encode / 1e6;
    std::printf("%-30s %12.0f MB/s  (target >= 1000)  %s\n", "Base64 encode (1 MiB in)", rate,
                rate >= 1000 ? "met" : "NOT MET");
  }
  const double decode = reporter.median("BM_Base64Decode/", seconds);
  if (decode > 0) {
    const double rate = static_cast<double>((kBase64Input + 2) / 3 * 4) / decode / 1e6;
    std::printf("%-30s %12.0f MB/s  (target >= 700)   %s\n", "Base64 decode (text in)", rate,
                rate >= 700 ? "met" : "NOT MET");
  }
  benchmark::Shutdown();
  return 0;
}
