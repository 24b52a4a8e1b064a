// The collector's inspector as a developer meets it: the built `telvo`
// collector on a free loopback port, its JSON API read over HTTPS, and its
// page loaded in headless Chromium (skipped where Chromium is not installed).
#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "telvo/envelope.h"
#include "telvo/types.h"
#include "tools/collector_process.h"

namespace telvo {
namespace {

using testing::CollectorProcess;
using testing::runProgram;
using testing::TempDir;

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
  auto result =
      runProgram("/usr/bin/chromium",
                 {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                  "--disable-background-networking", "--disable-component-update", "--disable-sync",
                  "--user-data-dir=" + profile, "--ignore-certificate-errors", "--hide-scrollbars",
                  "--window-size=1280,1000", "--virtual-time-budget=3000", mode, url},
                 {}, std::chrono::seconds(60));
  EXPECT_EQ(result.status, 0) << result.err;
  return result.out;
}

// The text between the element with id `id`'s start tag and `end`.
std::string element(const std::string& dom, const std::string& id, const std::string& end) {
  auto start = dom.find("id=\"" + id + "\"");
  if (start == std::string::npos) return std::string();
  auto stop = dom.find(end, start);
  return dom.substr(start, stop == std::string::npos ? std::string::npos : stop - start);
}

TEST_F(InspectorTest, PageInChromiumShowsStoredDataAsText) {
  if (!std::filesystem::exists("/usr/bin/chromium")) {
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

}  // namespace
}  // namespace telvo
