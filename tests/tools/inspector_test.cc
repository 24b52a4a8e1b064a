// The collector's inspector as a developer meets it: the built `telvo`
// collector on a free loopback port, its JSON API read over HTTPS, and its
// page loaded in headless Chromium (skipped where Chromium is not installed).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "telvo/envelope.h"
#include "telvo/types.h"
#include "support/launcher.h"
#include "tools/collector_process.h"

namespace telvo {
namespace {

using testing::CollectorProcess;
using testing::runProgram;
using testing::TempDir;
using testing::waitForExit;

constexpr const char* kChromium = "/usr/bin/chromium";

// Sanitizers and emulators make the collector several times slower, and the
// browser's time for the page the same.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
bool slowCollector() { return kSanitized || test::underEmulator(); }
// Headless Chromium that reaches nothing but the collector on loopback.
// clang-format off
const std::vector<std::string> kChromiumFlags = {
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--ignore-certificate-errors", "--hide-scrollbars", "--window-size=1280,1000"};
// clang-format on

const httplib::Headers kEnvelopeHeaders{{"Content-Type", "application/x-gzip"},
                                        {"Content-Encoding", "gzip"}};

// A device's event type written to be read as markup, were it ever parsed as such.
const char* kHostileType = "<img src=x onerror=\"document.title='pwned'\"><script>";

std::string envelope(const Json& document) {
  auto body = buildTelvoJsonParameter(document.dump());
  return body ? std::string(body->begin(), body->end()) : std::string();
}

class InspectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(std::string(TELVO_TOOL_PATH).empty()) << "the telvo tool is not built";
    ASSERT_TRUE(collector_.start(dir_.file("data"))) << "collector did not start";
    client_ = std::make_unique<httplib::SSLClient>("127.0.0.1", collector_.port());
    client_->set_ca_cert_path(collector_.certificatePath().c_str());
    client_->enable_server_certificate_verification(true);
    client_->set_connection_timeout(5, 0);
    client_->set_read_timeout(10, 0);
  }

  int post(const std::string& path, const std::string& body) {
    auto res = client_->Post(path.c_str(), kEnvelopeHeaders, body, "application/x-gzip");
    return res ? res->status : -1;
  }

  std::string hello(const std::string& application) {
    Json document{{"propertyName", "prop"},
                  {"applicationName", application},
                  {"applicationVersion", "2.5"},
                  {"platformName", "linux"},
                  {"deviceType", "settop"},
                  {"deviceVersion", "x86_64"},
                  {"clientDeviceId", "0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D"},
                  {"deviceModel", "PC"}};
    auto res =
        client_->Post("/api/hello", kEnvelopeHeaders, envelope(document), "application/x-gzip");
    return res && res->status == 200 ? Json::parse(res->body).value("sessionId", "") : "";
  }

  int batch(const std::string& session, const std::vector<std::pair<std::string, Json>>& events) {
    Json list = Json::array();
    for (const auto& [type, data] : events)
      list.push_back({{"eventType", type}, {"eventData", data}});
    return post("/api/postEvent/batch.json",
                envelope(Json{{"sessionId", session}, {"events", list}}));
  }

  // GET on the API; the status and the parsed body (null when not JSON).
  std::pair<int, Json> get(const std::string& target) {
    auto res = client_->Get(target.c_str());
    if (!res) return {-1, Json()};
    return {res->status, Json::parse(res->body, nullptr, false)};
  }

  // Two sessions, five events (one with a hostile type, one with data too
  // large for a list), an error report and a post that fails at the envelope.
  void storeKnownData() {
    first_ = hello("inspected-app");
    second_ = hello("other-app");
    ASSERT_FALSE(first_.empty());
    ASSERT_FALSE(second_.empty());
    ASSERT_EQ(batch(first_, {{"play", {{"timestamp", 1000}, {"title", "intro"}}},
                             {"pause", {{"timestamp", 2000}}},
                             {kHostileType, {{"timestamp", 3000}}},
                             {"play", {{"timestamp", 4000}, {"blob", std::string(5000, 'z')}}}}),
              200);
    ASSERT_EQ(batch(second_, {{"seek", {{"timestamp", 5000}, {"to", 30}}}}), 200);
    ASSERT_EQ(post("/api/postEvent/error", envelope(Json{{"sessionId", first_},
                                                         {"data",
                                                          {{"applicationName", "inspected-app"},
                                                           {"timestamp", 6000},
                                                           {"errorCode", "E42"}}}})),
              200);
    ASSERT_EQ(post("/api/postEvent/batch.json", badBody_), 400);
  }

  TempDir dir_;
  CollectorProcess collector_;
  std::unique_ptr<httplib::SSLClient> client_;
  std::string first_, second_;
  const std::string badBody_ = "bm90IGEgemxpYiBzdHJlYW0=";  // Base64, but not of zlib
};

TEST_F(InspectorTest, ApiServesStoredRowsNewestFirstWithFiltersAndPages) {
  storeKnownData();

  auto [status, summary] = get("/inspect/api/summary");
  ASSERT_EQ(status, 200);
  EXPECT_EQ(summary["sessions"], 2);
  EXPECT_EQ(summary["events"], 5);
  EXPECT_EQ(summary["errors"], 1);
  EXPECT_EQ(summary["problems"], 1);
  EXPECT_EQ(summary["eventTypes"][0], (Json{{"eventType", "play"}, {"count", 2}}));

  Json sessions = get("/inspect/api/sessions").second["sessions"];
  ASSERT_EQ(sessions.size(), 2u);
  EXPECT_EQ(sessions[0]["sessionId"], second_);  // newest first
  EXPECT_EQ(sessions[1]["hello"]["applicationName"], "inspected-app");
  EXPECT_EQ(sessions[1]["eventCount"], 4);
  EXPECT_GE(sessions[1]["lastSeen"].get<std::int64_t>(),
            sessions[1]["received"].get<std::int64_t>());

  Json events = get("/inspect/api/events").second["events"];
  ASSERT_EQ(events.size(), 5u);
  EXPECT_EQ(events[0]["eventType"], "seek");
  EXPECT_EQ(events[0]["eventData"], (Json{{"timestamp", 5000}, {"to", 30}}));
  EXPECT_EQ(events[0]["eventTime"], 5000);
  // Large data is cut in lists and whole in the detail.
  const Json& large = events[1];
  ASSERT_TRUE(large.contains("dataPreview")) << large.dump();
  EXPECT_EQ(large["dataPreview"].get<std::string>().size(), 200u);
  EXPECT_GT(large["dataLength"].get<int>(), 5000);
  auto [detailStatus, detail] = get("/inspect/api/events/" + large["id"].dump());
  ASSERT_EQ(detailStatus, 200);
  EXPECT_EQ(detail["eventData"]["blob"], std::string(5000, 'z'));

  auto types = [&](const std::string& query) {
    std::vector<std::string> out;
    Json page = get("/inspect/api/events?" + query).second;
    for (const Json& e : page["events"]) out.push_back(e["eventType"]);
    return out;
  };
  using V = std::vector<std::string>;
  EXPECT_EQ(types("type=play"), (V{"play", "play"}));
  EXPECT_EQ(types("session=" + second_), V{"seek"});
  EXPECT_EQ(types("session=" + first_ + "&type=pause"), V{"pause"});
  EXPECT_EQ(types("q=INTRO"), V{"play"});  // data, any case
  EXPECT_EQ(types("q=%25"), V{});          // LIKE's wildcards are literal
  EXPECT_EQ(types("q=onerror"), V{kHostileType});
  // Paging: two at a time from the newest, then what came after an id.
  EXPECT_EQ(types("limit=2"), (V{"seek", "play"}));
  std::int64_t second = events[1]["id"];
  EXPECT_EQ(types("limit=2&before=" + std::to_string(second)), (V{kHostileType, "pause"}));
  EXPECT_EQ(types("after=" + std::to_string(second)), V{"seek"});

  Json errors = get("/inspect/api/errors").second["errors"];
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0]["errorCode"], "E42");

  Json problems = get("/inspect/api/problems").second["problems"];
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems[0]["layer"], "envelope");
  EXPECT_EQ(problems[0]["bodyBytes"], badBody_.size());
  auto body = client_->Get(("/inspect/api/problems/" + problems[0]["id"].dump() + "/body").c_str());
  ASSERT_TRUE(body);
  EXPECT_EQ(body->body, badBody_);
  EXPECT_NE(body->get_header_value("Content-Disposition").find("attachment"), std::string::npos);

  Json rate = get("/inspect/api/rate?period=60&bucket=1").second;
  std::int64_t counted = 0;
  for (const Json& bucket : rate["buckets"]) counted += bucket["count"].get<std::int64_t>();
  EXPECT_EQ(counted, 5);
  EXPECT_EQ(rate["bucketMs"], 1000);
}

TEST_F(InspectorTest, HostileParametersAreRefusedAndLeaveNoProblemRows) {
  storeKnownData();
  const std::vector<std::string> refused = {
      "/inspect/api/events?limit=0",
      "/inspect/api/events?limit=1001",
      "/inspect/api/events?after=-1",
      "/inspect/api/events?before=99999999999999999999",
      "/inspect/api/events?before=9999999999999999999",  // 19 digits, past INT64_MAX
      "/inspect/api/events?since=1e9",
      "/inspect/api/events?preview=100001",
      "/inspect/api/events?q=" + std::string(1025, 'a'),
      "/inspect/api/sessions?limit=abc",
      "/inspect/api/rate?period=86401",
      "/inspect/api/rate?period=86400&bucket=1",  // too many buckets
  };
  for (const std::string& target : refused) {
    auto [status, body] = get(target);
    EXPECT_EQ(status, 400) << target;
    EXPECT_EQ(body.value("status", ""), "error") << target;
  }
  EXPECT_EQ(get("/inspect/api/events/999999").first, 404);
  EXPECT_EQ(get("/inspect/api/problems/999999/body").first, 404);
  EXPECT_EQ(get("/inspect/static/nothing.js").first, 404);
  // The inspector's own refusals are not the client's problems.
  EXPECT_EQ(get("/inspect/api/summary").second["problems"], 1);
}

// Runs headless Chromium on `url` with `mode` ("--dump-dom" or
// "--screenshot=<file>"); what it wrote to standard output.
std::string runChromium(const std::string& profile, const std::string& url,
                        const std::string& mode) {
  std::vector<std::string> args = kChromiumFlags;
  args.insert(args.end(), {"--user-data-dir=" + profile, "--virtual-time-budget=3000", mode, url});
  auto result = runProgram(kChromium, args, {}, std::chrono::seconds(60));
  EXPECT_EQ(result.status, 0) << result.err;
  return result.out;
}

// Headless Chromium driven through its DevTools pipe (--remote-debugging-pipe:
// it reads NUL-terminated JSON commands on descriptor 3 and writes answers
// and events on descriptor 4). Every wait is bounded; the browser is closed,
// or killed, at the end.
class Browser {
 public:
  Browser() = default;
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;
  ~Browser() {
    if (pid_ > 0) {
      call("Browser.close", Json::object());
      if (!waitForExit(pid_, std::chrono::seconds(5))) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
      }
    }
    if (toBrowser_ >= 0) close(toBrowser_);
    if (fromBrowser_ >= 0) close(fromBrowser_);
  }

  // Starts the browser and opens `url` in a page of its own.
  bool open(const std::string& profile, const std::string& url) {
    signal(SIGPIPE, SIG_IGN);  // a browser that died must fail the test, not end it
    int commands[2], answers[2];
    if (pipe2(commands, O_CLOEXEC) != 0) return false;
    if (pipe2(answers, O_CLOEXEC) != 0) return false;
    std::vector<std::string> args{kChromium};
    args.insert(args.end(), kChromiumFlags.begin(), kChromiumFlags.end());
    args.insert(args.end(),
                {"--remote-debugging-pipe", "--user-data-dir=" + profile, "about:blank"});
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, commands[0], 3);
    posix_spawn_file_actions_adddup2(&actions, answers[1], 4);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    if (posix_spawn(&pid_, kChromium, &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(commands[0]);
    close(answers[1]);
    toBrowser_ = commands[1];
    fromBrowser_ = answers[0];
    if (pid_ <= 0) return false;
    std::string target = call("Target.createTarget", {{"url", url}}).value("targetId", "");
    if (target.empty()) return false;
    session_ = call("Target.attachToTarget", {{"targetId", target}, {"flatten", true}})
                   .value("sessionId", "");
    return !session_.empty();
  }

  // The value of `expression` in the page (a promise is awaited); null when
  // it threw or the browser did not answer.
  Json evaluate(const std::string& expression) {
    Json result = call(
        "Runtime.evaluate",
        {{"expression", expression}, {"returnByValue", true}, {"awaitPromise", true}}, session_);
    if (!result.contains("result") || result.contains("exceptionDetails")) return Json();
    return result["result"].value("value", Json());
  }

  // Waits (bounded) for `expression` to be true in the page.
  bool waitFor(const std::string& expression,
               std::chrono::milliseconds timeout = std::chrono::seconds(15)) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
      if (evaluate(expression) == true) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }

 private:
  // Sends one command and reads (bounded) until its answer; the answer's
  // "result", or an empty object.
  Json call(const std::string& method, const Json& params, const std::string& session = "") {
    int id = ++lastId_;
    Json message{{"id", id}, {"method", method}, {"params", params}};
    if (!session.empty()) message["sessionId"] = session;
    std::string text = message.dump();
    text.push_back('\0');
    for (std::size_t sent = 0; sent < text.size();) {
      ssize_t n = write(toBrowser_, text.data() + sent, text.size() - sent);
      if (n <= 0) return Json::object();
      sent += static_cast<std::size_t>(n);
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    for (;;) {
      for (auto end = received_.find('\0'); end != std::string::npos; end = received_.find('\0')) {
        Json answer = Json::parse(received_.substr(0, end), nullptr, false);
        received_.erase(0, end + 1);
        if (answer.is_object() && answer.value("id", 0) == id) {
          return answer.value("result", Json::object());
        }
      }
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd fd{fromBrowser_, POLLIN, 0};
      if (left.count() <= 0 || poll(&fd, 1, static_cast<int>(left.count())) <= 0) {
        return Json::object();
      }
      char buffer[65536];
      ssize_t n = read(fromBrowser_, buffer, sizeof buffer);
      if (n <= 0) return Json::object();
      received_.append(buffer, static_cast<std::size_t>(n));
    }
  }

  pid_t pid_ = -1;
  int toBrowser_ = -1;
  int fromBrowser_ = -1;
  int lastId_ = 0;
  std::string session_;
  std::string received_;
};

// The text between the element with id `id`'s start tag and `end`.
std::string element(const std::string& dom, const std::string& id, const std::string& end) {
  auto start = dom.find("id=\"" + id + "\"");
  if (start == std::string::npos) return std::string();
  auto stop = dom.find(end, start);
  return dom.substr(start, stop == std::string::npos ? std::string::npos : stop - start);
}

TEST_F(InspectorTest, PageInChromiumShowsStoredDataAsText) {
  if (!std::filesystem::exists(kChromium)) {
    GTEST_SKIP() << "chromium is not installed (scripts/deps.sh installs it)";
  }
  storeKnownData();
  TempDir profile;

  // Filtered on free text: only the hostile event is listed.
  std::string dom =
      runChromium(profile.file("dom"), collector_.baseUrl() + "/#q=onerror", "--dump-dom");
  ASSERT_NE(dom.find("data-ready=\"1\""), std::string::npos) << "the page did not finish loading\n"
                                                             << dom;
  std::string events = element(dom, "events", "</tbody>");
  EXPECT_NE(events.find("&lt;img src=x onerror=\"document.title='pwned'\"&gt;&lt;script&gt;"),
            std::string::npos)
      << events;
  EXPECT_EQ(events.find(">play<"), std::string::npos) << events;
  EXPECT_EQ(events.find(">seek<"), std::string::npos) << events;
  // Nowhere did the device's text become markup.
  EXPECT_EQ(dom.find("<img src"), std::string::npos);
  EXPECT_EQ(dom.find("pwned</title>"), std::string::npos);

  std::string sessions = element(dom, "sessions", "</tbody>");
  EXPECT_NE(sessions.find(">inspected-app<"), std::string::npos) << sessions;
  EXPECT_NE(sessions.find(">other-app<"), std::string::npos) << sessions;
  EXPECT_NE(sessions.find(first_), std::string::npos);
  std::string hellos = element(dom, "hellos", "</section>");
  EXPECT_NE(hellos.find("0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D"), std::string::npos) << hellos;
  std::string problems = element(dom, "problems", "</tbody>");
  EXPECT_NE(problems.find(">envelope<"), std::string::npos) << problems;
  EXPECT_NE(problems.find("not a zlib stream"), std::string::npos) << problems;
  EXPECT_NE(problems.find("/body\""), std::string::npos) << problems;
  EXPECT_NE(element(dom, "errors", "</tbody>").find(">E42<"), std::string::npos);
  std::string chart = element(dom, "chart", "</svg>");
  EXPECT_NE(chart.find("id=\"rate-chart\""), std::string::npos) << chart;
  EXPECT_NE(chart.find("<rect"), std::string::npos) << chart;
  EXPECT_NE(element(dom, "status", "</span>").find("live"), std::string::npos);

  // A picture of the unfiltered page, kept with the build.
  std::filesystem::create_directories(TELVO_ARTEFACT_DIR);
  std::string shot = std::string(TELVO_ARTEFACT_DIR) + "/inspector.png";
  std::filesystem::remove(shot);
  runChromium(profile.file("shot"), collector_.baseUrl() + "/", "--screenshot=" + shot);
  ASSERT_TRUE(std::filesystem::exists(shot));
  EXPECT_GT(std::filesystem::file_size(shot), 10000u);
}

TEST_F(InspectorTest, PageInChromiumGoesOnWithASearchWhereEachAnswerStopped) {
  if (!std::filesystem::exists(kChromium)) {
    GTEST_SKIP() << "chromium is not installed (scripts/deps.sh installs it)";
  }
  // Slices of 1 ms: the search below answers many times before it reaches
  // the oldest events, the only ones it finds (of 40,002; under a sanitizer
  // or an emulator, 4,002 in slices of 5 ms).
  ASSERT_EQ(collector_.stop(), 0);
  ASSERT_TRUE(collector_.start(dir_.file("sliced"),
                               {"--search-slice-ms", slowCollector() ? "5" : "1"}));
  client_ = std::make_unique<httplib::SSLClient>("127.0.0.1", collector_.port());
  client_->set_ca_cert_path(collector_.certificatePath().c_str());
  client_->enable_server_certificate_verification(true);
  const std::string session = hello("searched-app");
  ASSERT_FALSE(session.empty());
  ASSERT_EQ(batch(session, {{"found", {{"n", "q7 first"}}}, {"found", {{"n", "q7 second"}}}}), 200);
  // (Fewer under an emulator, where the search is ten times slower and the
  // page's time in the browser the same.)
  const int kPosts = slowCollector() ? 4 : 40;
  for (int posts = 0; posts < kPosts; ++posts) {
    std::vector<std::pair<std::string, Json>> events(1000, {"other", {{"n", "nothing here"}}});
    ASSERT_EQ(batch(session, events), 200);
  }
  auto [status, first] = get("/inspect/api/events?q=q7");
  ASSERT_EQ(status, 200);
  ASSERT_TRUE(first.contains("searchedTo")) << "the search was not cut: " << first.dump();

  TempDir profile;
  const std::string dom =
      runChromium(profile.file("dom"), collector_.baseUrl() + "/#q=q7", "--dump-dom");
  ASSERT_NE(dom.find("data-ready=\"1\""), std::string::npos) << dom;
  const std::string events = element(dom, "events", "</tbody>");
  EXPECT_NE(events.find("q7 first"), std::string::npos) << events;
  EXPECT_NE(events.find("q7 second"), std::string::npos) << events;
  EXPECT_EQ(events.find("nothing here"), std::string::npos);
  EXPECT_EQ(element(dom, "events-note", "<").find("No events match"), std::string::npos);
}

TEST_F(InspectorTest, PageInChromiumFollowsArrivalsAndAPausedViewStaysPut) {
  if (!std::filesystem::exists(kChromium)) {
    GTEST_SKIP() << "chromium is not installed (scripts/deps.sh installs it)";
  }
  storeKnownData();
  TempDir profile;
  Browser browser;
  ASSERT_TRUE(browser.open(profile.file("live"), collector_.baseUrl() + "/"));
  ASSERT_TRUE(browser.waitFor("document.body.dataset.ready === '1'"));
  const std::string rows = "document.querySelectorAll('#events tr.event').length";
  const std::string newest = "document.querySelector('#events tr.event td.type').textContent";
  EXPECT_EQ(browser.evaluate(rows), 5);

  ASSERT_EQ(batch(second_, {{"arrived_live", {{"timestamp", 7000}}}}), 200);
  EXPECT_TRUE(browser.waitFor(newest + " === 'arrived_live'"));

  browser.evaluate("document.getElementById('pause').click()");
  ASSERT_EQ(batch(second_, {{"while_paused", {{"timestamp", 8000}}}}), 200);
  EXPECT_TRUE(
      browser.waitFor("document.getElementById('status').textContent.includes('1 new event')"));
  EXPECT_EQ(browser.evaluate(newest), "arrived_live");
  EXPECT_EQ(browser.evaluate(rows), 6);

  browser.evaluate("document.getElementById('pause').click()");
  EXPECT_TRUE(browser.waitFor(newest + " === 'while_paused'"));
  EXPECT_EQ(browser.evaluate(rows), 7);

  // A row opens on its whole data, with the service time beside the arrival.
  browser.evaluate(
      "[...document.querySelectorAll('#events tr.event')]"
      ".find((row) => row.textContent.includes('intro')).click()");
  EXPECT_TRUE(
      browser.waitFor("(document.querySelector('#events tr.detail pre') || {}).textContent === "
                      "JSON.stringify({timestamp: 1000, title: 'intro'}, null, 2)"));
  Json times = browser.evaluate(
      "[...document.querySelectorAll('#events tr.detail .times b')].map((b) => b.textContent)");
  ASSERT_TRUE(times.is_array()) << times.dump();
  EXPECT_EQ(times[0], "Service time (eventData.timestamp)");
  EXPECT_EQ(times[1], "Arrived at the collector");
}

TEST_F(InspectorTest, ALargeEventOpensInPiecesWithoutFreezingThePage) {
  if (!std::filesystem::exists(kChromium)) {
    GTEST_SKIP() << "chromium is not installed (scripts/deps.sh installs it)";
  }
  const std::string session = hello("large-app");
  ASSERT_FALSE(session.empty());
  // 15 MB of data made of five million small values: parsed and printed
  // whole, it holds a page for many seconds.
  std::string nested = "[";
  for (int i = 0; i < 50; ++i) {
    nested += i ? ",[" : "[";
    for (int k = 0; k < 99999; ++k) nested += "{},";
    nested += "{}]";
  }
  nested += "]";
  const std::string body = "{\"sessionId\":\"" + session +
                           "\",\"events\":[{\"eventType\":\"huge\",\"eventData\":{\"n\":" +
                           nested + "}},{\"eventType\":\"small\",\"eventData\":{\"k\":1}}]}";
  auto packed = buildTelvoJsonParameter(body);
  ASSERT_TRUE(packed);
  ASSERT_EQ(post("/api/postEvent/batch.json", std::string(packed->begin(), packed->end())), 200);

  TempDir profile;
  Browser browser;
  ASSERT_TRUE(browser.open(profile.file("large"), collector_.baseUrl() + "/"));
  ASSERT_TRUE(browser.waitFor("document.body.dataset.ready === '1'"));
  // The list shows the start of it and how long it is.
  EXPECT_TRUE(browser.waitFor(
      "[...document.querySelectorAll('#events tr.event')].some((row) => "
      "row.textContent.includes('huge') && row.textContent.includes('bytes)'))"));
  const auto clicked = std::chrono::steady_clock::now();
  browser.evaluate(
      "[...document.querySelectorAll('#events tr.event')]"
      ".find((row) => row.querySelector('td.type').textContent === 'huge').click()");
  const std::string piece = "(document.querySelector('#events tr.detail pre') || {}).textContent";
  ASSERT_TRUE(browser.waitFor(piece + " && " + piece + ".startsWith('{\"n\":[[{},{}')",
                              std::chrono::seconds(10)));
  // The page answers at once: it holds a piece, not the whole.
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - clicked).count(), 5.0);
  const auto asked = std::chrono::steady_clock::now();
  EXPECT_EQ(browser.evaluate("1 + 1"), 2);
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - asked).count(), 1.0);
  const Json shown = browser.evaluate(piece + ".length");
  ASSERT_TRUE(shown.is_number());
  EXPECT_LT(shown.get<int>(), 1 << 20);
  // The rest comes a piece at a time, or whole as a download.
  EXPECT_EQ(browser.evaluate("document.querySelector('#events tr.detail a.download').getAttribute("
                             "'href').endsWith('/data')"),
            true);
  browser.evaluate("document.querySelector('#events tr.detail button.more').click()");
  EXPECT_TRUE(browser.waitFor(piece + ".length > " + shown.dump()));
}

}  // namespace
}  // namespace telvo
