// The collector's fault matrix: what a hostile neighbour can send it (posts
// that inflate into huge or wide documents, slow and greedy connections,
// writes from other web pages, stray paths and bodies) and what it must do
// with each, measured on the built `telvo collector` over loopback HTTPS.
// Each case is bounded in time and stops by itself.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <random>
#include <tuple>
#include <string>
#include <thread>
#include <vector>

#include "telvo/envelope.h"
#include "telvo/types.h"
#include "tools/collector_process.h"

namespace telvo {
namespace {

using testing::CollectorProcess;
using testing::TempDir;

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Sanitizers keep freed memory aside for a while and shadow what is in
// use, so a peak measured under them says less; their bound is looser.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

std::string envelopeOf(std::string_view text) {
  auto body = buildTelvoJsonParameter(text);
  return body ? std::string(body->begin(), body->end()) : std::string();
}

const httplib::Headers kEnvelopeHeaders{{"Content-Type", "application/x-gzip"},
                                        {"Content-Encoding", "gzip"}};

Json helloDocument() {
  return Json{{"propertyName", "prop"},
              {"applicationName", "app"},
              {"applicationVersion", "1.2"},
              {"platformName", "linux"},
              {"deviceType", "settop"},
              {"deviceVersion", "x86_64"},
              {"clientDeviceId", "0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D"},
              {"deviceModel", "PC"}};
}

// A batch of one event whose data is `data` (JSON text), padded so that the
// whole document is `size` bytes long when `size` is given.
std::string batchText(const std::string& session, const std::string& data) {
  return "{\"sessionId\":\"" + session + "\",\"events\":[{\"eventType\":\"big\",\"eventData\":" +
         data + "}]}";
}

// {"a":[E,E,...,E]} with as many elements E as fit in `size` bytes.
std::string wideArray(const std::string& element, std::size_t size) {
  std::string text = "{\"a\":[";
  text.reserve(size);
  while (text.size() + element.size() + 3 < size) {
    text += element;
    text += ',';
  }
  text += element;
  text += "]}";
  return text;
}

class CollectorFaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(std::string(TELVO_TOOL_PATH).empty()) << "the telvo tool is not built";
    // A connection the collector ends must fail the client's request, not
    // end the test program.
    signal(SIGPIPE, SIG_IGN);
    dataDir_ = dir_.file("data");
  }

  void start(const std::vector<std::string>& extra = {}) {
    ASSERT_TRUE(collector_.start(dataDir_, extra)) << "collector did not start";
  }

  std::unique_ptr<httplib::SSLClient> client(int readTimeoutSeconds = 60) const {
    auto c = std::make_unique<httplib::SSLClient>("127.0.0.1", collector_.port());
    c->set_ca_cert_path(collector_.certificatePath().c_str());
    c->enable_server_certificate_verification(true);
    c->set_connection_timeout(5, 0);
    c->set_read_timeout(readTimeoutSeconds, 0);
    c->set_write_timeout(30, 0);
    return c;
  }

  // The status of a post (-1 when it failed), and its answer.
  std::pair<int, std::string> post(const std::string& path, const std::string& body,
                                   const httplib::Headers& headers = kEnvelopeHeaders) const {
    auto res = client()->Post(path.c_str(), headers, body, "application/x-gzip");
    if (!res) return {-1, httplib::to_string(res.error())};
    return {res->status, res->body};
  }

  std::string hello() const {
    auto [status, body] = post("/api/hello", envelopeOf(helloDocument().dump()));
    if (status != 200) return std::string();
    return Json::parse(body, nullptr, false).value("sessionId", "");
  }

  // One number from the collector's database, read directly.
  std::int64_t count(const std::string& sql) const {
    sqlite3* db = nullptr;
    std::int64_t value = -1;
    if (sqlite3_open_v2((dataDir_ + "/collector.db").c_str(), &db, SQLITE_OPEN_READONLY,
                        nullptr) == SQLITE_OK) {
      sqlite3_busy_timeout(db, 5000);
      sqlite3_stmt* stmt = nullptr;
      if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK &&
          sqlite3_step(stmt) == SQLITE_ROW) {
        value = sqlite3_column_int64(stmt, 0);
      }
      sqlite3_finalize(stmt);
    }
    sqlite3_close(db);
    return value;
  }

  TempDir dir_;
  std::string dataDir_;
  CollectorProcess collector_;
};

// ---- ingest: a post is checked without building its document ----

TEST_F(CollectorFaultsTest, HugeAndWideDocumentsKeepPeakMemoryBoundedAndOrdinaryPostsFlowing) {
  start();  // the default limits
  const std::string session = hello();
  ASSERT_FALSE(session.empty());
  // What a reviewer posted: documents of tiny bodies inflating to just under
  // 64 MiB (empty objects, numbers), and the same just under the collector's
  // default inflate limit of 16 MiB, where they are read.
  struct Input {
    std::string name;
    std::string body;
  };
  std::vector<Input> inputs;
  for (std::size_t size : {(std::size_t{64} << 20) - 4096, (std::size_t{16} << 20) - 4096}) {
    const std::string tag = std::to_string(size >> 20) + " MiB";
    inputs.push_back({"empty objects, " + tag,
                      envelopeOf(batchText(session, wideArray("{}", size - 200)))});
    inputs.push_back({"numbers, " + tag, envelopeOf(batchText(session, wideArray("0", size - 200)))});
    inputs.push_back({"small objects, " + tag,
                      envelopeOf(batchText(session, wideArray("{\"k\":[1,\"v\"]}", size - 200)))});
  }
  // A valid batch as large as the library ever posts: 25,000 events.
  std::string events = "{\"sessionId\":\"" + session + "\",\"events\":[";
  for (int i = 0; i < 25000; ++i) {
    if (i) events += ',';
    events += "{\"eventType\":\"bulk\",\"eventData\":{\"timestamp\":" + std::to_string(1000 + i) +
              ",\"text\":\"" + std::string(120, 'a' + i % 26) + "\"}}";
  }
  events += "]}";
  inputs.push_back({"25,000 events", envelopeOf(events)});
  for (const Input& input : inputs) ASSERT_LT(input.body.size(), 1u << 20) << input.name;

  // Four at once of each, while ordinary hellos keep being answered.
  std::atomic<bool> loading{true};
  std::atomic<double> slowestHello{0};
  std::atomic<int> hellos{0};
  std::thread ordinary([&] {
    while (loading) {
      const auto started = Clock::now();
      if (!hello().empty()) ++hellos;
      const double took = secondsSince(started);
      if (took > slowestHello) slowestHello = took;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  });
  for (const Input& input : inputs) {
    SCOPED_TRACE(input.name);
    const auto started = Clock::now();
    std::vector<std::thread> posters;
    std::vector<std::pair<int, std::string>> answers(4);
    for (int i = 0; i < 4; ++i) {
      posters.emplace_back([&, i] { answers[i] = post("/api/postEvent/batch.json", input.body); });
    }
    for (auto& poster : posters) poster.join();
    EXPECT_LT(secondsSince(started), 20.0);
    for (const auto& [status, answer] : answers) {
      EXPECT_TRUE(status == 200 || status == 400) << status << " " << answer.substr(0, 300);
    }
  }
  loading = false;
  ordinary.join();
  EXPECT_GT(hellos.load(), 0);
  EXPECT_LT(slowestHello.load(), 5.0 * test::timeScale())
      << "an ordinary hello waited behind the large posts";

  const long peakKiB = collector_.statusKiB("VmHWM");
  ASSERT_GT(peakKiB, 0);
  EXPECT_LT(peakKiB, (kSanitized ? 1024 : 256) * 1024) << "KiB at the collector's peak";
  std::printf("collector peak resident memory through the large posts: %.1f MiB\n",
              peakKiB / 1024.0);

  // The valid batch was stored whole, four times; the rest were refused at
  // the layer that failed, each with its reason.
  EXPECT_EQ(count("SELECT count(*) FROM events WHERE type = 'bulk'"), 4 * 25000);
  EXPECT_EQ(count("SELECT count(*) FROM problems WHERE description LIKE '%limit of 16777216 "
                  "bytes%'"),
            3 * 4);
  EXPECT_EQ(count("SELECT count(*) FROM problems WHERE description LIKE '%more than 100000 "
                  "members%'"),
            3 * 4);
}

// ---- writes only from clients ----

TEST_F(CollectorFaultsTest, WebPagesCannotWriteAndOtherHostNamesAreRefused) {
  start({"--allow-host", "collector.lab.example"});
  const std::string port = std::to_string(collector_.port());
  const std::string hello = envelopeOf(helloDocument().dump());
  auto withHeaders = [&](httplib::Headers extra) {
    httplib::Headers headers = kEnvelopeHeaders;
    headers.insert(extra.begin(), extra.end());
    return headers;
  };

  // A page on another origin posting with fetch(..., {mode: 'no-cors'}):
  // the browser sends Origin, which devices and the library never do.
  for (std::string path : {"/api/hello", "/api/postEvent/batch.json", "/nowhere"}) {
    SCOPED_TRACE(path);
    auto [status, body] = post(path, hello, withHeaders({{"Origin", "https://evil.example"}}));
    EXPECT_EQ(status, 403) << body;
    EXPECT_NE(body.find("Origin"), std::string::npos) << body;
  }
  // A name that is not this machine's (DNS rebinding: evil.example made to
  // resolve to 127.0.0.1), for writes and for reads.
  auto [status, body] =
      post("/api/hello", hello, withHeaders({{"Host", "rebind.evil.example:" + port}}));
  EXPECT_EQ(status, 403) << body;
  EXPECT_NE(body.find("rebind.evil.example"), std::string::npos) << body;
  auto read = client()->Get("/inspect/api/summary", {{"Host", "rebind.evil.example:" + port}});
  ASSERT_TRUE(read);
  EXPECT_EQ(read->status, 403);
  auto page = client()->Get("/", {{"Host", "rebind.evil.example"}});
  ASSERT_TRUE(page);
  EXPECT_EQ(page->status, 403);
  EXPECT_EQ(count("SELECT count(*) FROM sessions"), 0);

  // Devices name the machine by address, by localhost, or by a name given
  // with --allow-host.
  for (const std::string& host : std::vector<std::string>{
           "127.0.0.1:" + port, "localhost:" + port, "LOCALHOST",
                                  "[::1]:" + port, "192.168.1.20:" + port, "collector.lab.example",
                                  "Collector.Lab.Example:" + port}) {
    SCOPED_TRACE(host);
    auto [ok, answer] = post("/api/hello", hello, withHeaders({{"Host", host}}));
    EXPECT_EQ(ok, 200) << answer;
  }
  EXPECT_EQ(count("SELECT count(*) FROM sessions"), 7);
  // The refusals are listed as problems, without bodies.
  EXPECT_EQ(count("SELECT count(*) FROM problems WHERE description LIKE '%Origin%' AND body_id "
                  "IS NULL"),
            3);
  EXPECT_EQ(count("SELECT count(*) FROM problems WHERE description LIKE '%rebind.evil.example%'"),
            3);
}

TEST_F(CollectorFaultsTest, AnswersAreNotSniffedAndTheDataFolderIsPrivate) {
  start();
  auto c = client();
  auto hello = c->Post("/api/hello", kEnvelopeHeaders, envelopeOf(helloDocument().dump()),
                       "application/x-gzip");
  ASSERT_TRUE(hello);
  const std::string session = Json::parse(hello->body).value("sessionId", "");
  std::vector<std::pair<std::string, httplib::Result>> answers;
  answers.emplace_back("hello", std::move(hello));
  answers.emplace_back(
      "batch", c->Post("/api/postEvent/batch.json", kEnvelopeHeaders,
                       envelopeOf("{\"sessionId\":\"" + session +
                                  "\",\"events\":[{\"eventType\":\"a\",\"eventData\":{}}]}"),
                       "application/x-gzip"));
  answers.emplace_back("refused", c->Post("/api/postEvent/batch.json", kEnvelopeHeaders, "%%%",
                                          "application/x-gzip"));
  answers.emplace_back("configuration",
                       c->Get("/mdrv/telvo/config/app/site/telvoanalytics.json"));
  answers.emplace_back("summary", c->Get("/inspect/api/summary"));
  answers.emplace_back("events", c->Get("/inspect/api/events"));
  answers.emplace_back("unknown", c->Get("/inspect/api/nothing"));
  for (const auto& [name, res] : answers) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->get_header_value("X-Content-Type-Options"), "nosniff");
  }

  struct stat folder {};
  ASSERT_EQ(::stat(dataDir_.c_str(), &folder), 0);
  EXPECT_EQ(folder.st_mode & 0777, 0700u);
  for (std::string name : {"collector.db", "collector.db-wal", "collector.db-shm",
                                  "collector-cert.pem", "collector-key.pem"}) {
    SCOPED_TRACE(name);
    struct stat file {};
    ASSERT_EQ(::stat((dataDir_ + "/" + name).c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0600u);
  }
}

// ---- stray paths, oversized and unusual bodies ----

TEST_F(CollectorFaultsTest, StrayPathsAndOversizedBodiesKeepOnlyAFewKilobytes) {
  start();  // --max-body 8 MiB, --keep-stray-body 4096
  auto c = client();
  const std::string large(8000000, 'x');
  for (int i = 0; i < 10; ++i) {
    auto res = c->Post(("/nope" + std::to_string(i)).c_str(), large, "application/octet-stream");
    ASSERT_TRUE(res) << httplib::to_string(res.error());
    EXPECT_EQ(res->status, 404);
  }
  for (const char* method : {"PUT", "PATCH", "DELETE"}) {
    SCOPED_TRACE(method);
    httplib::Request req;
    req.method = method;
    req.path = "/api/hello";
    req.body = std::string(1000000, 'y');
    req.set_header("Content-Type", "text/plain");
    auto res = c->send(req);
    ASSERT_TRUE(res) << httplib::to_string(res.error());
    EXPECT_EQ(res->status, 404);
  }
  // Over the body limit, announced or sent in chunks without a length.
  auto announced =
      client()->Post("/api/postEvent/batch.json", kEnvelopeHeaders, std::string(9u << 20, 'A'),
                     "application/x-gzip");
  if (announced) {
    EXPECT_EQ(announced->status, 413);
  }
  for (std::string path : {"/api/postEvent/batch.json", "/nope-chunked"}) {
    SCOPED_TRACE(path);
    std::size_t sent = 0;
    auto chunked = client()->Post(
        path.c_str(), kEnvelopeHeaders,
        [&](std::size_t, httplib::DataSink& sink) {
          static const std::string piece(64 * 1024, 'B');
          if (sent >= (20u << 20)) {
            sink.done();
            return true;
          }
          sent += piece.size();
          return sink.write(piece.data(), piece.size());
        },
        "application/x-gzip");
    if (chunked) {
      EXPECT_TRUE(chunked->status == 413 || chunked->status == 404) << chunked->status;
    }
  }
  EXPECT_FALSE(hello().empty()) << "the collector stopped answering";

  // Each left a problem with at most 4 KiB of its body, saying how much
  // there was.
  EXPECT_EQ(count("SELECT count(*) FROM problems WHERE path LIKE '/nope%' AND description LIKE "
                  "'%unknown path%'"),
            11);
  EXPECT_EQ(count("SELECT count(*) FROM problems WHERE description LIKE '%first 4096 of 8000000 "
                  "bytes kept%'"),
            10);
  EXPECT_EQ(count("SELECT count(*) FROM problems WHERE path = '/api/postEvent/batch.json' AND "
                  "description LIKE '%larger than the limit of 8388608 bytes%'"),
            2);
  EXPECT_LE(count("SELECT max(length(body)) FROM request_bodies"), 4096);
  EXPECT_LE(count("SELECT sum(length(body)) FROM request_bodies"), 16 * 4096);
  std::uintmax_t onDisk = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dataDir_)) {
    if (entry.path().filename().string().rfind("collector.db", 0) == 0) onDisk += entry.file_size();
  }
  EXPECT_LT(onDisk, 8u << 20) << "bytes of database after 120 MB of stray bodies";
}

TEST_F(CollectorFaultsTest, FormBodiesAndUnreadableHeadersGetTheRightAnswers) {
  start();
  const std::string session = hello();
  ASSERT_FALSE(session.empty());
  // A batch of 40 KB sent with a form's content type: stored, with the label
  // as its problem (not refused for a form's size).
  std::string events;
  std::mt19937 random(7);
  for (int i = 0; i < 200; ++i) {
    std::string noise(200, ' ');
    for (char& c : noise) c = static_cast<char>('a' + random() % 26);
    events += std::string(i ? "," : "") + "{\"eventType\":\"form\",\"eventData\":{\"n\":\"" +
              noise + "\"}}";
  }
  const std::string batch =
      envelopeOf("{\"sessionId\":\"" + session + "\",\"events\":[" + events + "]}");
  ASSERT_GT(batch.size(), 8192u);
  auto [status, body] =
      post("/api/postEvent/batch.json", batch,
           {{"Content-Type", "application/x-www-form-urlencoded"}, {"Content-Encoding", "gzip"}});
  EXPECT_EQ(status, 200) << body;
  EXPECT_EQ(count("SELECT count(*) FROM events WHERE type = 'form'"), 200);
  EXPECT_EQ(count("SELECT count(*) FROM problems WHERE description LIKE '%Content-Type is "
                  "\"application/x-www-form-urlencoded\"%'"),
            1);
  // The same with a multipart type: read as the envelope it is.
  std::tie(status, body) =
      post("/api/postEvent/batch.json", batch,
           {{"Content-Type", "multipart/form-data; boundary=xyz"}, {"Content-Encoding", "gzip"}});
  EXPECT_EQ(status, 200) << body;
  EXPECT_EQ(count("SELECT count(*) FROM events WHERE type = 'form'"), 400);

  // Header values that are not UTF-8: a 400 naming the header, never a 500.
  const std::string hello = envelopeOf(helloDocument().dump());
  struct Case {
    std::string path;
    httplib::Headers headers;
    std::string header;
  };
  std::vector<Case> cases = {
      {"/api/postEvent/batch.json",
       {{"Content-Type", "application/x-gzip\xff\xfe"}, {"Content-Encoding", "gzip"}},
       "Content-Type"},
      {"/api/postEvent/error",
       {{"Content-Type", "application/x-gzip"}, {"Content-Encoding", "gz\xc3"}},
       "Content-Encoding"},
      {"/api/hello", {{"Cookie", "telvoUUID=\x80\x81"}}, "Cookie"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.header);
    auto [refused, answer] = post(c.path, hello, c.headers);
    EXPECT_EQ(refused, 400) << answer;
    EXPECT_NE(answer.find(c.header + " header is not UTF-8"), std::string::npos) << answer;
    EXPECT_EQ(count("SELECT count(*) FROM problems WHERE path = '" + c.path +
                    "' AND description LIKE '%" + c.header + " header is not UTF-8%'"),
              1);
  }
  EXPECT_EQ(count("SELECT count(*) FROM problems WHERE description LIKE '%collector failed%'"), 0);
}

}  // namespace
}  // namespace telvo
