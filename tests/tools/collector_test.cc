// The local collector as users run it: the built `telvo` binary on a free
// loopback port, spoken to over HTTPS (trusting the certificate it made), its
// rows read back with `telvo events --json` and with SQLite directly.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "telvo/base64.h"
#include "telvo/envelope.h"
#include "telvo/gzip.h"
#include "telvo/types.h"
#include "tools/collector_process.h"

namespace telvo {
namespace {

using testing::CollectorProcess;
using testing::runTool;
using testing::TempDir;

std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string envelope(const Json& document) {
  auto body = buildTelvoJsonParameter(document.dump());
  return body ? std::string(body->begin(), body->end()) : std::string();
}

Json helloDocument() {
  return Json{{"propertyName", "prop"},
              {"applicationName", "app"},
              {"applicationVersion", "1.2"},
              {"platformName", "linux"},
              {"deviceType", "settop"},
              {"deviceVersion", "x86_64"},
              {"clientDeviceId", "0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D"},
              {"deviceModel", "PC"},
              {"telvoUUIDToken", "517telvoUID517"}};
}

// The envelope of `text` taken as it stands (not necessarily JSON).
std::string rawEnvelope(const std::string& text) {
  auto body = buildTelvoJsonParameter(text);
  return body ? std::string(body->begin(), body->end()) : std::string();
}

// Base64 of a zlib stream of `text`, without the "telvoJson=" prefix.
std::string zlibBase64(const std::string& text) {
  auto packed = compressedDataWithData(Bytes(text.begin(), text.end()));
  return packed ? base64EncodedString(*packed).value_or("") : std::string();
}

// "xxxxxxxx-xxxx-4xxx-[89ab]xxx-xxxxxxxxxxxx", lower-case hexadecimal.
bool isLowerUuidV4(const std::string& text) {
  if (text.size() != 36 || text[14] != '4' ||
      std::string("89ab").find(text[19]) == std::string::npos) {
    return false;
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash != (text[i] == '-')) return false;
    if (!dash && std::string("0123456789abcdef").find(text[i]) == std::string::npos) return false;
  }
  return true;
}

const httplib::Headers kEnvelopeHeaders{{"Content-Type", "application/x-gzip"},
                                        {"Content-Encoding", "gzip"}};

class CollectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(std::string(TELVO_TOOL_PATH).empty()) << "the telvo tool is not built";
    dataDir_ = dir_.file("data");
  }

  void start(const std::vector<std::string>& extra = {}) {
    ASSERT_TRUE(collector_.start(dataDir_, extra)) << "collector did not start";
    client_ = std::make_unique<httplib::SSLClient>("127.0.0.1", collector_.port());
    client_->set_ca_cert_path(collector_.certificatePath().c_str());
    client_->enable_server_certificate_verification(true);
    client_->set_connection_timeout(static_cast<time_t>(5 * test::timeScale()), 0);
    client_->set_read_timeout(static_cast<time_t>(10 * test::timeScale()), 0);
  }

  httplib::Result post(const std::string& path, const std::string& body,
                       const httplib::Headers& headers = kEnvelopeHeaders) {
    return client_->Post(path.c_str(), headers, body, "application/x-gzip");
  }

  // Says hello and gives the session id of the answer.
  std::string hello() {
    auto res = post("/api/hello", envelope(helloDocument()));
    if (!res || res->status != 200) return std::string();
    return Json::parse(res->body).value("sessionId", "");
  }

  Json stored(const std::vector<std::string>& extra = {}) {
    std::vector<std::string> args{"events", "--json", "--data", dataDir_};
    args.insert(args.end(), extra.begin(), extra.end());
    auto result = runTool(args);
    EXPECT_EQ(result.status, 0) << result.err;
    return Json::parse(result.out, nullptr, false);
  }

  // Problems are written by the collector after it answers (or when a
  // connection breaks), so they are polled for.
  Json problemsOnceAtLeast(std::size_t count) {
    Json rows;
    for (int i = 0; i < 100; ++i) {
      rows = stored()["problems"];
      if (rows.size() >= count) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return rows;
  }

  TempDir dir_;
  std::string dataDir_;
  CollectorProcess collector_;
  std::unique_ptr<httplib::SSLClient> client_;
};

TEST_F(CollectorTest, ServesBuiltInConfigurationAndAnswersHelloWithOptions) {
  start({"--throttle", "--clock-skew", "5000", "--callback", "cb", "--set-cookie",
         "telvoUUID=abc; Path=/"});
  EXPECT_NE(collector_.startLine().find(collector_.baseUrl() + "/mdrv/telvo/config/"),
            std::string::npos)
      << collector_.startLine();

  auto config = client_->Get("/mdrv/telvo/config/myapp/mysite/telvoanalytics.json");
  ASSERT_TRUE(config);
  ASSERT_EQ(config->status, 200);
  Json document = Json::parse(config->body);
  EXPECT_EQ(document["default"]["servicesUrl"], collector_.baseUrl());
  EXPECT_EQ(document["default"]["batchMode"], "timer");
  EXPECT_EQ(document["default"]["helloApi"], "/api/hello");
  EXPECT_EQ(document["count"]["batchAmount"], 3);

  std::int64_t before = nowMs();
  auto res = post("/api/hello", envelope(helloDocument()));
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200);
  EXPECT_EQ(res->get_header_value("Set-Cookie"), "telvoUUID=abc; Path=/");
  const std::string& body = res->body;
  ASSERT_TRUE(body.size() > 5 && body.rfind("cb(", 0) == 0 &&
              body.compare(body.size() - 2, 2, ");") == 0)
      << body;
  Json answer = Json::parse(body.substr(3, body.size() - 5));
  EXPECT_TRUE(answer["throttled"].get<bool>());
  EXPECT_TRUE(isLowerUuidV4(answer["sessionId"].get<std::string>())) << answer.dump();
  std::int64_t skewed = answer["timestamp"].get<std::int64_t>();
  EXPECT_GE(skewed, before + 5000);
  EXPECT_LE(skewed, nowMs() + 5000);

  // A second hello is a new session.
  auto again = post("/api/hello", envelope(helloDocument()));
  ASSERT_TRUE(again);
  EXPECT_EQ(again->status, 200);
  EXPECT_EQ(again->body.find(answer["sessionId"].get<std::string>()), std::string::npos);

  // A hello carrying the remembered cookie has no envelope labels by design.
  auto withCookie = post("/api/hello", envelope(helloDocument()), {{"Cookie", "telvoUUID=abc"}});
  ASSERT_TRUE(withCookie);
  EXPECT_EQ(withCookie->status, 200);

  Json rows = stored();
  ASSERT_EQ(rows["sessions"].size(), 3u);
  const Json& session = rows["sessions"][0];
  EXPECT_EQ(session["sessionId"], answer["sessionId"]);
  EXPECT_EQ(session["serviceTime"], skewed);
  EXPECT_EQ(session["hello"], helloDocument());
  EXPECT_EQ(rows["sessions"][2]["cookie"], "telvoUUID=abc");
  EXPECT_TRUE(rows["problems"].empty()) << rows["problems"].dump();
}

TEST_F(CollectorTest, StoresBatchAndErrorPostsWithTheirTimes) {
  start();
  std::string session = hello();
  ASSERT_FALSE(session.empty());

  Json batch{{"sessionId", session},
             {"events",
              {{{"eventType", "play"}, {"eventData", {{"timestamp", 1000.0}, {"id", 1}}}},
               {{"eventType", "pause"}, {"eventData", {{"timestamp", 2000}, {"id", 2}}}},
               {{"eventType", "play"}, {"eventData", {{"applicationName", "app"}}}}}}};
  auto res = post("/api/postEvent/batch.json", envelope(batch));
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(Json::parse(res->body), (Json{{"status", "ok"}}));

  Json error{
      {"sessionId", session},
      {"data", {{"applicationName", "app"}, {"timestamp", 3000.0}, {"errorCode", 42}, {"k", "v"}}}};
  res = post("/api/postEvent/error", envelope(error));
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);

  Json rows = stored();
  ASSERT_EQ(rows["events"].size(), 3u);
  EXPECT_EQ(rows["events"][0]["eventType"], "play");
  EXPECT_EQ(rows["events"][0]["eventTime"], 1000);
  EXPECT_EQ(rows["events"][0]["eventData"]["id"], 1);
  EXPECT_EQ(rows["events"][1]["eventTime"], 2000);
  EXPECT_TRUE(rows["events"][2]["eventTime"].is_null());
  for (const auto& event : rows["events"]) EXPECT_EQ(event["sessionId"], session);
  ASSERT_EQ(rows["errors"].size(), 1u);
  EXPECT_EQ(rows["errors"][0]["errorCode"], 42);
  EXPECT_EQ(rows["errors"][0]["errorTime"], 3000);
  EXPECT_EQ(rows["errors"][0]["data"]["k"], "v");
  EXPECT_TRUE(rows["problems"].empty()) << rows["problems"].dump();

  // Filters: by type, and by received time.
  EXPECT_EQ(stored({"--type", "play"})["events"].size(), 2u);
  EXPECT_TRUE(stored({"--since", std::to_string(nowMs() + 60000)})["events"].empty());
  EXPECT_EQ(stored({"--since", "2000-01-01T00:00:00Z"})["events"].size(), 3u);

  // The readable listing names what arrived.
  auto table = runTool({"events", "--data", dataDir_});
  EXPECT_EQ(table.status, 0);
  EXPECT_NE(table.out.find("Events (3)"), std::string::npos) << table.out;
  EXPECT_NE(table.out.find("pause"), std::string::npos);
  EXPECT_NE(table.out.find("Problems (0)"), std::string::npos);

  // The database itself, as any SQLite reader sees it.
  sqlite3* db = nullptr;
  ASSERT_EQ(
      sqlite3_open_v2((dataDir_ + "/collector.db").c_str(), &db, SQLITE_OPEN_READONLY, nullptr),
      SQLITE_OK);
  sqlite3_stmt* stmt = nullptr;
  ASSERT_EQ(
      sqlite3_prepare_v2(db, "SELECT COUNT(*) FROM events WHERE type = 'play'", -1, &stmt, nullptr),
      SQLITE_OK);
  ASSERT_EQ(sqlite3_step(stmt), SQLITE_ROW);
  EXPECT_EQ(sqlite3_column_int(stmt, 0), 2);
  sqlite3_finalize(stmt);
  sqlite3_close(db);
}

// Opens a TLS connection, announces a body of 1000 bytes, sends 100 and
// hangs up.
void sendTruncatedRequest(int port, const std::string& path) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  SSL_CTX* context = SSL_CTX_new(TLS_client_method());
  SSL_CTX_set_verify(context, SSL_VERIFY_NONE, nullptr);
  SSL* ssl = SSL_new(context);
  SSL_set_fd(ssl, fd);
  EXPECT_EQ(SSL_connect(ssl), 1);
  std::string request = "POST " + path +
                        " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/x-gzip\r\n"
                        "Content-Encoding: gzip\r\nContent-Length: 1000\r\n\r\n" +
                        std::string(100, 'A');
  EXPECT_EQ(SSL_write(ssl, request.data(), static_cast<int>(request.size())),
            static_cast<int>(request.size()));
  SSL_shutdown(ssl);
  SSL_free(ssl);
  SSL_CTX_free(context);
  close(fd);
}

TEST_F(CollectorTest, TimesAfter2038ReadAndPrintExactlyOnEveryMachine) {
  // A 32-bit machine's time_t ends in January 2038.
  start();
  std::string session = hello();
  ASSERT_FALSE(session.empty());
  Json batch{{"sessionId", session},
             {"events", {{{"eventType", "late"}, {"eventData", {{"timestamp", 2240000000123.0}}}}}}};
  auto res = post("/api/postEvent/batch.json", envelope(batch));
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);

  EXPECT_EQ(stored({"--since", "2000-01-01T00:00:00Z"})["events"].size(), 1u);
  EXPECT_TRUE(stored({"--since", "2040-01-01T00:00:00Z"})["events"].empty());
  auto table = runTool({"events", "--data", dataDir_});
  EXPECT_NE(table.out.find("2040-12-24T22:13:20.123Z"), std::string::npos) << table.out;
}

TEST_F(CollectorTest, RecordsMalformedRequestsAndKeepsServing) {
  start({"--max-body", "4096", "--max-inflated", "1048576"});
  std::string session = hello();
  ASSERT_FALSE(session.empty());
  struct Case {
    std::string name, path, body;
    httplib::Headers headers;
    int status;
    std::string problem;
  };
  Json goodBatch{{"sessionId", session},
                 {"events", {{{"eventType", "x"}, {"eventData", Json::object()}}}}};
  std::vector<Case> cases = {
      {"not Base64", "/api/postEvent/batch.json", "%%%%%%%%", kEnvelopeHeaders, 400, "not Base64"},
      {"not zlib", "/api/postEvent/batch.json", "aGVsbG8gd29ybGQ=", kEnvelopeHeaders, 400,
       "not a zlib stream"},
      {"no prefix", "/api/postEvent/error", zlibBase64("{\"sessionId\":\"s\"}"), kEnvelopeHeaders,
       400, "prefix"},
      {"bad JSON", "/api/postEvent/batch.json", rawEnvelope("{\"sessionId\":"), kEnvelopeHeaders,
       400, "not JSON"},
      {"wrong labels",
       "/api/postEvent/batch.json",
       envelope(goodBatch),
       {{"Content-Type", "application/json"}},
       200,
       "Content-Encoding is absent"},
      {"unknown session", "/api/postEvent/error",
       envelope({{"sessionId", "nope"},
                 {"data", {{"applicationName", "a"}, {"timestamp", 1}, {"errorCode", 1}}}}),
       kEnvelopeHeaders, 200, "unknown session id \"nope\""},
      {"batch shape", "/api/postEvent/batch.json",
       envelope({{"sessionId", session}, {"events", {{{"eventData", Json::object()}}}}}),
       kEnvelopeHeaders, 200, "no text \"eventType\""},
      {"hello shape", "/api/hello", envelope({{"propertyName", "p"}, {"deviceType", "phone"}}),
       kEnvelopeHeaders, 200, "missing member \"applicationName\""},
      {"unknown path", "/api/postEvent/other", envelope(goodBatch), kEnvelopeHeaders, 404,
       "unknown path"},
      {"huge body", "/api/postEvent/batch.json", std::string(8192, 'A'), kEnvelopeHeaders, 413,
       "larger than the limit of 4096"},
      {"deep document", "/api/postEvent/batch.json",
       rawEnvelope("{\"sessionId\":\"s\",\"events\":" + std::string(1000, '[') +
                   std::string(1000, ']') + "}"),
       kEnvelopeHeaders, 400, "more than 128 deep"},
      {"deep event data", "/api/postEvent/batch.json",
       rawEnvelope("{\"sessionId\":\"" + session +
                   "\",\"events\":[{\"eventType\":\"x\",\"eventData\":" +
                   std::string(1000, '[') + std::string(1000, ']') + "}]}"),
       kEnvelopeHeaders, 400, "more than 128 deep"},
      {"bomb", "/api/postEvent/batch.json",
       rawEnvelope("{\"sessionId\":\"" + std::string(2u << 20, 'x') + "\"}"), kEnvelopeHeaders,
       400, "inflates to more than the limit of 1048576 bytes"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto res = post(c.path, c.body, c.headers);
    ASSERT_TRUE(res) << httplib::to_string(res.error());
    EXPECT_EQ(res->status, c.status) << res->body;
  }
  sendTruncatedRequest(collector_.port(), "/api/postEvent/batch.json");

  Json problems = problemsOnceAtLeast(cases.size() + 1);
  auto recorded = [&](const std::string& text, const std::string& path) {
    for (const auto& p : problems) {
      if (p["path"] == path &&
          p["description"].get<std::string>().find(text) != std::string::npos) {
        return true;
      }
    }
    return false;
  };
  for (const auto& c : cases) {
    EXPECT_TRUE(recorded(c.problem, c.path)) << c.name << " not in " << problems.dump();
  }
  EXPECT_TRUE(recorded("could not be read", "/api/postEvent/batch.json")) << problems.dump();

  // Still serving, and the well-formed parts were kept: the relabelled batch
  // and the hello with missing members are stored with their problems.
  auto res = post("/api/postEvent/batch.json", envelope(goodBatch));
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  Json rows = stored();
  EXPECT_EQ(rows["events"].size(), 2u);
  EXPECT_EQ(rows["sessions"].size(), 2u);
  EXPECT_EQ(rows["errors"].size(), 1u);
}

TEST_F(CollectorTest, ADecompressionBombCostsNoMoreThanTheInflateLimit) {
  start({"--max-inflated", "8388608"});
  std::string session = hello();
  ASSERT_FALSE(session.empty());
  const long before = collector_.statusKiB("VmRSS");
  // 256 MiB of text in a quarter of a megabyte.
  const std::string bomb =
      rawEnvelope("{\"sessionId\":\"" + session + "\",\"x\":\"" + std::string(256u << 20, '0') + "\"}");
  ASSERT_LT(bomb.size(), 1u << 20);
  auto res = post("/api/postEvent/batch.json", bomb);
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 400);
  // Inflating stops at 8 MiB; inflating it all would take 512 MiB at the peak.
  const long growth = collector_.statusKiB("VmHWM") - before;
  EXPECT_LT(growth, 128 * 1024) << "KiB above the resident size before the bomb";
  Json problems = problemsOnceAtLeast(1);
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_NE(problems[0]["description"].get<std::string>().find("limit of 8388608 bytes"),
            std::string::npos);
}

TEST_F(CollectorTest, ThousandsOfIdleOrHalfSentConnectionsDoNotHoldUpValidPosts) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  // Under a sanitizer every thread the collector starts costs far more, so
  // fewer connections make the same point.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr rlim_t kWanted = 300;
#else
  constexpr rlim_t kWanted = 2000;
#endif
  const int connections = static_cast<int>(std::min<rlim_t>(kWanted, limit.rlim_cur / 2 - 64));
  start();
  std::vector<int> sockets;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(collector_.port()));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const auto opening = std::chrono::steady_clock::now();
  for (int i = 0; i < connections; ++i) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      ::close(fd);
      continue;
    }
    // Every other one starts a TLS handshake and stops half-way.
    if (i % 2 == 1) (void)!::send(fd, "\x16\x03\x01\x02\x00\x01\x00", 7, MSG_NOSIGNAL);
    sockets.push_back(fd);
  }
  EXPECT_GT(sockets.size(), static_cast<std::size_t>(connections) * 9 / 10);
  // The collector takes them in as fast as they come.
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - opening).count(), 20.0);
  // For the few seconds they stay open, valid posts still go through at once.
  for (int round = 0; round < 4; ++round) {
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(hello().empty()) << "round " << round;
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(),
              3.0 * test::timeScale())
        << "round " << round;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
  for (int fd : sockets) ::close(fd);
  EXPECT_FALSE(hello().empty());
}

TEST_F(CollectorTest, StopsOnSigtermAndKeepsDataAndCertificateAcrossRestart) {
  start();
  std::string session = hello();
  ASSERT_FALSE(session.empty());
  std::string certificate = testing::readFile(collector_.certificatePath());
  ASSERT_FALSE(certificate.empty());
  EXPECT_EQ(collector_.stop(SIGTERM), 0);

  start();
  EXPECT_EQ(testing::readFile(collector_.certificatePath()), certificate);
  Json batch{{"sessionId", session},
             {"events", {{{"eventType", "after"}, {"eventData", {{"timestamp", 5}}}}}}};
  auto res = post("/api/postEvent/batch.json", envelope(batch));
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(collector_.stop(SIGINT), 0);

  Json rows = stored();
  ASSERT_EQ(rows["sessions"].size(), 1u);
  EXPECT_EQ(rows["sessions"][0]["sessionId"], session);
  ASSERT_EQ(rows["events"].size(), 1u);
  EXPECT_TRUE(rows["problems"].empty()) << "session forgotten: " << rows["problems"].dump();
}

TEST_F(CollectorTest, ServesConfigurationFolder) {
  std::string configDir = dir_.file("config");
  std::filesystem::create_directories(configDir + "/app/site");
  std::ofstream(configDir + "/app/site/telvoanalytics.json") << R"({"default":{"enabled":false}})";
  start({"--config-dir", configDir});

  auto res = client_->Get("/mdrv/telvo/config/app/site/telvoanalytics.json");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(res->body, R"({"default":{"enabled":false}})");

  res = client_->Get("/mdrv/telvo/config/app/other/telvoanalytics.json");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 404);
  res = client_->Get("/mdrv/telvo/config/app/../../telvoanalytics.json");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 404);
  EXPECT_GE(problemsOnceAtLeast(2).size(), 2u);
}

TEST(EventsCommandTest, RefusesBadInputClearly) {
  TempDir dir;
  auto missing = runTool({"events", "--data", dir.file("nothing")});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("no collector database"), std::string::npos) << missing.err;

  auto badTime = runTool({"events", "--data", dir.path(), "--since", "yesterday"});
  EXPECT_EQ(badTime.status, 2);
  EXPECT_NE(badTime.err.find("--since"), std::string::npos);

  std::ofstream(dir.file("collector.db")) << "not a database";
  auto notDb = runTool({"events", "--data", dir.path()});
  EXPECT_EQ(notDb.status, 1);
}

}  // namespace
}  // namespace telvo
