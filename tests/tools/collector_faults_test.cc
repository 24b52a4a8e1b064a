// The collector's fault matrix: what a hostile neighbour can send it (posts
// that inflate into huge or wide documents, slow and greedy connections,
// writes from other web pages, stray paths and bodies) and what it must do
// with each, measured on the built `telvo collector` over loopback HTTPS.
// Each case is bounded in time and stops by itself.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <optional>
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

// A TLS connection to the collector made by hand, so that it can be slow,
// greedy or half-done as a hostile client is: from a chosen loopback
// address, every wait bounded.
class RawConnection {
 public:
  RawConnection() = default;
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;
  ~RawConnection() { close(); }

  // Connects from `source` (any address of 127/8) and, when `handshake`,
  // completes the TLS handshake. False when either fails.
  bool open(int port, const char* source = "127.0.0.1", bool handshake = true) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return false;
    sockaddr_in from{};
    from.sin_family = AF_INET;
    inet_pton(AF_INET, source, &from.sin_addr);
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0) return false;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) return false;
    timeval wait{5, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
    if (!handshake) return true;
    static SSL_CTX* context = [] {
      SSL_CTX* made = SSL_CTX_new(TLS_client_method());
      SSL_CTX_set_verify(made, SSL_VERIFY_NONE, nullptr);
      return made;
    }();
    ssl_ = SSL_new(context);
    SSL_set_fd(ssl_, fd_);
    return SSL_connect(ssl_) == 1;
  }

  // Sends `text`; false when the connection no longer takes it.
  bool send(const std::string& text) {
    if (!ssl_) return ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == ssize_t(text.size());
    return SSL_write(ssl_, text.data(), static_cast<int>(text.size())) ==
           static_cast<int>(text.size());
  }

  // What arrives within `timeout` until the collector ends the connection;
  // `*ended` says whether it did.
  std::string receive(std::chrono::milliseconds timeout, bool* ended) {
    std::string got;
    *ended = false;
    const auto deadline = Clock::now() + timeout;
    while (Clock::now() < deadline) {
      pollfd wait{fd_, POLLIN, 0};
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (ssl_ && SSL_pending(ssl_) == 0 && ::poll(&wait, 1, int(left.count()) + 1) <= 0) continue;
      if (!ssl_ && ::poll(&wait, 1, int(left.count()) + 1) <= 0) continue;
      char buffer[4096];
      // Readable may mean a TLS record without data: never block on it.
      const int flags = fcntl(fd_, F_GETFL, 0);
      fcntl(fd_, F_SETFL, flags | O_NONBLOCK);
      const int n = ssl_ ? SSL_read(ssl_, buffer, sizeof buffer)
                         : static_cast<int>(::recv(fd_, buffer, sizeof buffer, 0));
      fcntl(fd_, F_SETFL, flags);
      if (n < 0 && !ssl_ && (errno == EAGAIN || errno == EWOULDBLOCK)) continue;
      // TLS 1.3 session tickets arrive after the handshake: read, but no data.
      if (n <= 0 && ssl_ && SSL_get_error(ssl_, n) == SSL_ERROR_WANT_READ) continue;
      if (n <= 0) {
        *ended = true;
        break;
      }
      got.append(buffer, static_cast<std::size_t>(n));
    }
    return got;
  }

  // Whether the collector has ended the connection, waiting up to `timeout`.
  bool endedWithin(std::chrono::milliseconds timeout) {
    bool ended = false;
    receive(timeout, &ended);
    return ended;
  }

  void close() {
    if (ssl_) SSL_free(ssl_);
    if (fd_ >= 0) ::close(fd_);
    ssl_ = nullptr;
    fd_ = -1;
  }

 private:
  int fd_ = -1;
  SSL* ssl_ = nullptr;
};

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

  Json summary() const {
    auto res = client()->Get("/inspect/api/summary");
    return res ? Json::parse(res->body, nullptr, false) : Json();
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
    EXPECT_LT(secondsSince(started), 20.0 * test::timeScale());
    for (const auto& [status, answer] : answers) {
      EXPECT_TRUE(status == 200 || status == 400) << status << " " << answer.substr(0, 300);
    }
  }
  loading = false;
  ordinary.join();
  EXPECT_GT(hellos.load(), 0);
  EXPECT_LT(slowestHello.load(), (kSanitized ? 20.0 : 5.0) * test::timeScale())
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

// ---- connections: deadlines, sizes, shares, and stopping ----

TEST_F(CollectorFaultsTest, SlowRequestsAreCutAtTheirDeadlinesWhileOthersAreServed) {
  start({"--header-timeout", "2", "--body-timeout", "2"});
  // Slow headers: a byte every half second, from a neighbour's address.
  std::vector<std::unique_ptr<RawConnection>> slow;
  for (int i = 0; i < 100; ++i) {
    slow.push_back(std::make_unique<RawConnection>());
    ASSERT_TRUE(slow.back()->open(collector_.port(), "127.0.0.2")) << i;
  }
  // A slow body: whole headers, then a byte every half second.
  RawConnection slowBody;
  ASSERT_TRUE(slowBody.open(collector_.port(), "127.0.0.3"));
  ASSERT_TRUE(slowBody.send(
      "POST /api/postEvent/batch.json HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: "
      "application/x-gzip\r\nContent-Encoding: gzip\r\nContent-Length: 1000\r\n\r\n"));
  const std::string request = "POST /api/hello HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Slow: ";
  const auto started = Clock::now();
  std::size_t sent = 0;
  while (secondsSince(started) < 1.5) {
    for (auto& connection : slow) connection->send(request.substr(sent % request.size(), 1));
    slowBody.send("A");
    ++sent;
    // Meanwhile a device's hello goes through at once.
    const auto asked = Clock::now();
    EXPECT_FALSE(hello().empty());
    EXPECT_LT(secondsSince(asked), 1.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
  // All are cut once their two seconds are over, however they dribble.
  std::size_t ended = 0;
  for (auto& connection : slow) {
    connection->send("x");
    if (connection->endedWithin(std::chrono::milliseconds(2000))) ++ended;
  }
  EXPECT_EQ(ended, slow.size()) << "slow headers still held after their deadline";
  bool bodyEnded = false;
  slowBody.send("A");
  const std::string answer = slowBody.receive(std::chrono::seconds(3), &bodyEnded);
  EXPECT_TRUE(bodyEnded);
  EXPECT_NE(answer.find("408"), std::string::npos) << answer;
  EXPECT_EQ(count("SELECT count(*) FROM problems WHERE description LIKE '%body not complete "
                  "within 2 s%'"),
            1);
  EXPECT_LT(secondsSince(started), 8.0);
  // What was cut is counted.
  const Json connections = summary()["connections"];
  EXPECT_GE(connections.value("headerTimeouts", 0), 100) << connections.dump();
  EXPECT_EQ(connections.value("bodyTimeouts", 0), 1) << connections.dump();
}

TEST_F(CollectorFaultsTest, HeadersAreBoundedInSizeAndCount) {
  start();  // --max-header-bytes 65536, --max-headers 100
  // Header lines for as long as the collector takes them.
  RawConnection flood;
  ASSERT_TRUE(flood.open(collector_.port()));
  ASSERT_TRUE(flood.send("GET /inspect/api/summary HTTP/1.1\r\nHost: 127.0.0.1\r\n"));
  const std::string line = "X-Flood: " + std::string(1000, 'f') + "\r\n";
  std::size_t taken = 0;
  const auto started = Clock::now();
  while (secondsSince(started) < 5 && flood.send(line)) taken += line.size();
  EXPECT_LT(taken, 4u << 20) << "bytes of headers taken on one connection";
  EXPECT_LT(secondsSince(started), 5.0);

  // Many small headers: refused with 431, and the collector goes on.
  RawConnection many;
  ASSERT_TRUE(many.open(collector_.port()));
  std::string headers = "GET /inspect/api/summary HTTP/1.1\r\nHost: 127.0.0.1\r\n";
  for (int i = 0; i < 150; ++i) headers += "X-" + std::to_string(i) + ": v\r\n";
  ASSERT_TRUE(many.send(headers + "\r\n"));
  bool ended = false;
  const std::string answer = many.receive(std::chrono::seconds(3), &ended);
  EXPECT_EQ(answer.rfind("HTTP/1.1 431", 0), 0u) << answer;
  EXPECT_FALSE(hello().empty());
  EXPECT_LT(collector_.statusKiB("VmHWM"), (kSanitized ? 512 : 128) * 1024);
  EXPECT_EQ(count("SELECT count(*) FROM problems WHERE description LIKE '%headers larger than "
                  "the limit of 65536 bytes%'"),
            1);
  EXPECT_EQ(count("SELECT count(*) FROM problems WHERE description LIKE '%more than 100 "
                  "headers%'"),
            1);
}

TEST_F(CollectorFaultsTest, ReadsThatSendABodyAreRefusedBeforeItIsRead) {
  start();
  for (std::string method : {"GET", "OPTIONS", "TRACE"}) {
    SCOPED_TRACE(method);
    RawConnection reader;
    ASSERT_TRUE(reader.open(collector_.port()));
    ASSERT_TRUE(reader.send(method +
                            " /inspect/api/summary HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                            "Transfer-Encoding: chunked\r\n\r\n"));
    const std::string chunk = "100000\r\n" + std::string(0x100000, 'c') + "\r\n";
    std::size_t taken = 0;
    const auto started = Clock::now();
    while (secondsSince(started) < 3 && reader.send(chunk)) taken += chunk.size();
    EXPECT_LT(taken, 8u << 20) << "bytes of a read's body taken";
    bool ended = false;
    const std::string answer = reader.receive(std::chrono::seconds(2), &ended);
    EXPECT_EQ(answer.rfind("HTTP/1.1 400", 0), 0u) << answer.substr(0, 200);
  }
  EXPECT_LT(collector_.statusKiB("VmHWM"), (kSanitized ? 512 : 128) * 1024);
  EXPECT_FALSE(hello().empty());
}

TEST_F(CollectorFaultsTest, OneAddressHoldsAtMostItsShareOfConnections) {
  start({"--max-connections-per-address", "20"});
  // A neighbour opens many connections and sends nothing.
  std::vector<std::unique_ptr<RawConnection>> greedy;
  for (int i = 0; i < 60; ++i) {
    greedy.push_back(std::make_unique<RawConnection>());
    greedy.back()->open(collector_.port(), "127.0.0.2");
  }
  // Only the newest 20 are kept; the older ones were closed to make room.
  std::size_t open = 0;
  for (auto& connection : greedy) {
    if (!connection->endedWithin(std::chrono::milliseconds(100))) ++open;
  }
  EXPECT_LE(open, 20u);
  EXPECT_GE(open, 10u);
  EXPECT_GE(summary()["connections"].value("evicted", 0), 40) << summary().dump();
  // Devices at other addresses, and at the same one, are still served.
  const auto asked = Clock::now();
  EXPECT_FALSE(hello().empty());
  EXPECT_LT(secondsSince(asked), 1.0);
  RawConnection same;
  ASSERT_TRUE(same.open(collector_.port(), "127.0.0.2"));
  ASSERT_TRUE(same.send("GET /inspect/api/summary HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"));
  bool ended = false;
  EXPECT_EQ(same.receive(std::chrono::seconds(2), &ended).rfind("HTTP/1.1 200", 0), 0u);
}

TEST_F(CollectorFaultsTest, ExitsWithinTwoSecondsOfSigtermWhateverConnectionsDo) {
  start();
  std::vector<std::unique_ptr<RawConnection>> busy;
  for (int i = 0; i < 50; ++i) {  // slow headers
    busy.push_back(std::make_unique<RawConnection>());
    ASSERT_TRUE(busy.back()->open(collector_.port(), "127.0.0.2"));
    busy.back()->send("POST /api/hello HTTP/1.1\r\nHost: x");
  }
  for (int i = 0; i < 20; ++i) {  // half a handshake
    busy.push_back(std::make_unique<RawConnection>());
    ASSERT_TRUE(busy.back()->open(collector_.port(), "127.0.0.3", /*handshake=*/false));
    busy.back()->send(std::string("\x16\x03\x01\x02\x00\x01\x00", 7));
  }
  for (int i = 0; i < 10; ++i) {  // slow bodies
    busy.push_back(std::make_unique<RawConnection>());
    ASSERT_TRUE(busy.back()->open(collector_.port(), "127.0.0.4"));
    busy.back()->send(
        "POST /api/postEvent/batch.json HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: "
        "100000\r\n\r\nAAAA");
  }
  // They keep dribbling, a byte every half second, until the end.
  std::atomic<bool> dribbling{true};
  std::thread dribbler([&] {
    while (dribbling) {
      for (auto& connection : busy) connection->send("A");
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  const auto stopping = Clock::now();
  EXPECT_EQ(collector_.stop(SIGTERM), 0);
  const double took = secondsSince(stopping);
  dribbling = false;
  dribbler.join();
  std::printf("collector exited %.2f s after SIGTERM with %zu busy connections\n", took,
              busy.size());
  EXPECT_LT(took, 2.0);
}

// ---- reads: stored text spliced, device text cut, large data in pieces ----

TEST_F(CollectorFaultsTest, ListsCutDeviceTextAndLargeDataIsReadInPieces) {
  start();
  // A hello whose members are a megabyte each.
  Json hello = helloDocument();
  hello["deviceModel"] = std::string(1 << 20, 'm');
  hello["extra"] = std::string(1 << 20, 'x');
  auto [status, answer] = post("/api/hello", envelopeOf(hello.dump()));
  ASSERT_EQ(status, 200) << answer;
  const std::string session = Json::parse(answer).value("sessionId", "");
  // Fifteen event types of a megabyte each, in one small post.
  std::string events;
  for (int i = 0; i < 15; ++i) {
    events += std::string(i ? "," : "") + "{\"eventType\":\"" + std::string(1 << 20, 'a' + i) +
              "\",\"eventData\":{\"i\":" + std::to_string(i) + "}}";
  }
  std::tie(status, answer) =
      post("/api/postEvent/batch.json",
           envelopeOf("{\"sessionId\":\"" + session + "\",\"events\":[" + events + "]}"));
  ASSERT_EQ(status, 200) << answer;
  // Three events of 15 MiB, each of five million small values (within every
  // bound: no array holds more than 100,000).
  std::string nested = "[";
  for (int i = 0; i < 50; ++i) nested += std::string(i ? "," : "") + wideArray("{}", 300000);
  nested += "]";
  for (int i = 0; i < 3; ++i) {
    std::tie(status, answer) =
        post("/api/postEvent/batch.json", envelopeOf(batchText(session, "{\"n\":" + nested + "}")));
    ASSERT_EQ(status, 200) << answer.substr(0, 300);
  }
  const long before = collector_.statusKiB("VmHWM");

  auto get = [&](const std::string& target) {
    auto res = client()->Get(target.c_str());
    EXPECT_TRUE(res) << target;
    if (!res) return std::make_pair(-1, std::string());
    return std::make_pair(res->status, res->body);
  };
  // Lists stay small, and say how long what they cut was.
  for (std::string target : {"/inspect/api/summary", "/inspect/api/events?limit=1000",
                             "/inspect/api/sessions", "/inspect/api/rate?period=300&bucket=1"}) {
    SCOPED_TRACE(target);
    auto [code, body] = get(target);
    EXPECT_EQ(code, 200);
    EXPECT_LT(body.size(), 256u * 1024) << "bytes in one answer";
  }
  const Json list = Json::parse(get("/inspect/api/events?limit=1000").second);
  ASSERT_EQ(list["events"].size(), 18u);
  const Json& large = list["events"][0];
  EXPECT_EQ(large["dataLength"], 6 + nested.size());
  EXPECT_EQ(large["dataPreview"].get<std::string>().size(), 200u);
  const Json& typed = list["events"][3];
  EXPECT_EQ(typed["eventTypeLength"], 1 << 20);
  EXPECT_LE(typed["eventType"].get<std::string>().size(), 200u);
  const Json sessions = Json::parse(get("/inspect/api/sessions").second);
  EXPECT_EQ(sessions["sessions"][0]["hello"]["deviceModelLength"], 1 << 20);
  EXPECT_LE(sessions["sessions"][0]["hello"]["deviceModel"].get<std::string>().size(), 200u);
  const Json summary = Json::parse(get("/inspect/api/summary").second);
  EXPECT_EQ(summary["eventTypes"].size(), 16u);

  // A page of them whole is refused; the detail gives a piece, and the rest
  // comes in pieces or as a download.
  EXPECT_EQ(get("/inspect/api/events?preview=0&limit=3").first, 400);
  const std::string id = std::to_string(large["id"].get<std::int64_t>());
  auto [detailStatus, detailText] = get("/inspect/api/events/" + id);
  EXPECT_EQ(detailStatus, 200);
  EXPECT_LT(detailText.size(), 512u * 1024);
  const Json detail = Json::parse(detailText);
  EXPECT_EQ(detail["dataLength"], 6 + nested.size());
  EXPECT_EQ(detail["dataPiece"].get<std::string>().rfind("{\"n\":[{\"a\":[{},{}", 0), 0u);
  auto [pieceStatus, piece] = get("/inspect/api/events/" + id + "/data?offset=5&length=100");
  EXPECT_EQ(pieceStatus, 200);
  EXPECT_EQ(piece, nested.substr(0, 100));
  auto [wholeStatus, whole] = get("/inspect/api/events/" + id + "/data");
  EXPECT_EQ(wholeStatus, 200);
  EXPECT_EQ(whole.size(), 6 + nested.size());
  EXPECT_EQ(whole.substr(whole.size() - 10), nested.substr(nested.size() - 9) + "}");

  const long grown = collector_.statusKiB("VmHWM") - before;
  EXPECT_LT(grown, (kSanitized ? 512 : 96) * 1024) << "KiB the reads added to the peak";
  std::printf("collector peak %.1f MiB, reads added %.1f MiB\n",
              collector_.statusKiB("VmHWM") / 1024.0, grown / 1024.0);
}

TEST_F(CollectorFaultsTest, A48MiBEventIsReadWithinAQuarterGigabyte) {
  start({"--max-inflated", std::to_string(64 << 20)});
  const std::string session = hello();
  ASSERT_FALSE(session.empty());
  const std::string text(48u << 20, 'x');
  auto [status, answer] =
      post("/api/postEvent/batch.json", envelopeOf(batchText(session, "{\"t\":\"" + text + "\"}")));
  ASSERT_EQ(status, 200) << answer.substr(0, 300);
  auto get = [&](const std::string& target) {
    auto res = client()->Get(target.c_str());
    EXPECT_TRUE(res) << target;
    return res ? std::make_pair(res->status, res->body.size()) : std::make_pair(-1, std::size_t{0});
  };
  EXPECT_EQ(get("/inspect/api/events/1").first, 200);
  EXPECT_LT(get("/inspect/api/events/1").second, 512u * 1024);
  EXPECT_NE(get("/inspect/api/events?preview=0&limit=3").first, 200);
  EXPECT_EQ(get("/inspect/api/events?limit=3&preview=4096").first, 200);
  EXPECT_EQ(get("/inspect/api/events/1/data").second, text.size() + 8);
  const long peak = collector_.statusKiB("VmHWM");
  EXPECT_LT(peak, (kSanitized ? 1024 : 256) * 1024) << "KiB at the peak";
  std::printf("collector peak with a 48 MiB event stored and read: %.1f MiB\n", peak / 1024.0);
}

// ---- search: indexed, and bounded in time ----

TEST_F(CollectorFaultsTest, SearchesAreIndexedBoundedInTimeAndHoldUpNoOtherQuery) {
  const int kLimitMs = static_cast<int>((kSanitized ? 1000 : 300) * test::timeScale());
  // No slice: a search runs until it is done or its time is up.
  start({"--query-time-ms", std::to_string(kLimitMs), "--search-slice-ms", "600000"});
  const std::string session = hello();
  ASSERT_FALSE(session.empty());
  // Text that costs a LIKE the most for a run of a's: runs of 1,023 a's.
  std::string runs;
  while (runs.size() < (15u << 20) + (512u << 10)) runs += std::string(1023, 'a') + "b";
  // One event of some 15.5 MiB (just within the default inflate limit),
  // then 600 of 6 KiB.
  auto [status, body] = post("/api/postEvent/batch.json",
                             envelopeOf(batchText(session, "{\"t\":\"" + runs + "\"}")));
  ASSERT_EQ(status, 200) << body.substr(0, 300);
  std::string events;
  for (int i = 0; i < 600; ++i) {
    events += std::string(i ? "," : "") + "{\"eventType\":\"run\",\"eventData\":{\"t\":\"" +
              runs.substr(static_cast<std::size_t>(i), 6000) + "\"}}";
  }
  std::tie(status, body) = post(
      "/api/postEvent/batch.json",
      envelopeOf("{\"sessionId\":\"" + session + "\",\"events\":[" + events + "]}"));
  ASSERT_EQ(status, 200) << body.substr(0, 300);
  std::tie(status, body) = post(
      "/api/postEvent/batch.json",
      envelopeOf(batchText(session, "{\"title\":\"a needle, 100% of it\"}")));
  ASSERT_EQ(status, 200) << body;

  // 1,024 a's: every event holds its trigrams, none the text, and each
  // check reads a few KiB many times over. It stops at its time limit.
  const std::string longest = "/inspect/api/events?q=" + std::string(1024, 'a');
  std::atomic<bool> searching{true};
  std::atomic<int> searches{0}, tooLong{0}, late{0};
  std::vector<std::thread> searchers;
  for (int i = 0; i < 2; ++i) {
    searchers.emplace_back([&] {
      auto c = client();
      while (searching) {
        const auto asked = Clock::now();
        auto res = c->Get(longest.c_str());
        ++searches;
        if (secondsSince(asked) > kLimitMs / 1000.0 + 1.5 * test::timeScale()) ++late;
        if (res && res->status == 503 &&
            res->body.find("search took too long") != std::string::npos) {
          ++tooLong;
        }
      }
    });
  }
  // Meanwhile the page's other queries answer at once.
  double slowest = 0;
  for (int i = 0; i < 10; ++i) {
    for (std::string target : {"/inspect/api/summary", "/inspect/api/events?limit=100",
                               "/inspect/api/events?q=needle"}) {
      const auto asked = Clock::now();
      auto res = client()->Get(target.c_str());
      slowest = std::max(slowest, secondsSince(asked));
      ASSERT_TRUE(res) << target;
      EXPECT_EQ(res->status, 200) << target << ": " << res->body.substr(0, 200);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  searching = false;
  for (auto& searcher : searchers) searcher.join();
  EXPECT_GT(searches.load(), 0);
  EXPECT_EQ(tooLong.load(), searches.load()) << "searches answered other than 503";
  EXPECT_EQ(late.load(), 0) << "searches answered well past their limit";
  EXPECT_LT(slowest, kLimitMs / 1000.0 + 0.5 * test::timeScale())
      << "seconds a query waited behind the searches";
  EXPECT_GE(summary()["queries"].value("timedOut", 0), searches.load()) << summary().dump();

  // What a search finds: any case, its own % taken literally, two
  // characters read row by row.
  auto found = [&](const std::string& q) {
    auto res = client()->Get(("/inspect/api/events?limit=1000&q=" + q).c_str());
    EXPECT_TRUE(res && res->status == 200) << q;
    return res && res->status == 200 ? Json::parse(res->body)["events"].size() : 0u;
  };
  EXPECT_EQ(found("NEEDLE"), 1u);
  EXPECT_EQ(found("100%25%20of"), 1u);
  EXPECT_EQ(found("0%25"), 1u);
  EXPECT_EQ(found("aab"), 601u);
  EXPECT_EQ(found("ru"), 600u);
  EXPECT_EQ(found("needles"), 0u);
  // Text past the start of an event's data that is searched (4 KiB) is not
  // found: only the small event's data ends within it.
  EXPECT_EQ(found("%22%7D"), 1u);
  std::printf("%d searches of 1,024 characters, each stopped at %d ms\n", searches.load(),
              kLimitMs);
}

TEST_F(CollectorFaultsTest, ASearchAnswersInSlicesAndGoesOnWhereItStopped) {
  // Slices of 2 ms: a search that reads thousands of events answers many
  // times on its way.
  // (Sanitizers and emulators make each answer's start dearer: longer
  // slices and fewer events there.)
  const bool slow = kSanitized || test::underEmulator();
  start({"--search-slice-ms", slow ? "5" : "2"});
  const std::string session = hello();
  ASSERT_FALSE(session.empty());
  // 40,000 events; every 997th holds "abcd" and "q7", every other one the
  // trigrams of "abcd" (so that the index cannot tell them apart) and no "q7".
  const int kEvents = slow ? 20000 : 40000;
  std::vector<int> matching;
  for (int first = 0; first < kEvents; first += 1000) {
    std::string events;
    for (int n = first; n < first + 1000; ++n) {
      if (n % 997 == 0) matching.insert(matching.begin(), n);  // newest first
      events += std::string(n > first ? "," : "") +
                "{\"eventType\":\"tick\",\"eventData\":{\"n\":" + std::to_string(n) +
                ",\"t\":\"" + (n % 997 == 0 ? "abcd q7" : "abc bcd") + "\"}}";
    }
    auto [status, body] = post(
        "/api/postEvent/batch.json",
        envelopeOf("{\"sessionId\":\"" + session + "\",\"events\":[" + events + "]}"));
    ASSERT_EQ(status, 200) << body;
  }

  // Pages of five, each next one from where the last stopped, as the page
  // asks for them: every match once, newest first.
  for (const std::string text : {"ABCD", "q7"}) {
    SCOPED_TRACE(text);
    std::vector<int> found;
    std::optional<std::int64_t> before;
    int answers = 0, stopped = 0;
    double slowest = 0;
    auto asking = client();
    while (answers < 20000) {
      const std::string target = "/inspect/api/events?limit=5&q=" + text +
                                 (before ? "&before=" + std::to_string(*before) : "");
      const auto asked = Clock::now();
      auto res = asking->Get(target.c_str());
      slowest = std::max(slowest, secondsSince(asked));
      ++answers;
      ASSERT_TRUE(res && res->status == 200) << target;
      const Json page = Json::parse(res->body);
      for (const Json& row : page["events"]) found.push_back(row["eventData"].value("n", -1));
      if (page.contains("searchedTo")) {
        ++stopped;
        const std::int64_t next = page["searchedTo"];
        ASSERT_TRUE(!before || next < *before) << "no progress: " << res->body;
        if (!page["events"].empty()) {
          ASSERT_LE(next, page["events"].back().value("id", 0));
        }
        before = next;
      } else if (page["events"].size() == 5) {
        before = page["events"].back().value("id", 0);
      } else {
        break;
      }
    }
    EXPECT_EQ(found, matching);
    EXPECT_GT(stopped, 1) << "the search was never cut into slices";
    EXPECT_LT(slowest, 2.0 * test::timeScale()) << "seconds for one answer";
    std::printf("\"%s\": %d answers, %d of them stopped by the slice, the slowest %.3f s\n",
                text.c_str(), answers, stopped, slowest);
  }
}

TEST_F(CollectorFaultsTest, ADatabaseOfAnOlderCollectorIsCountedAndIndexedWhenOpened) {
  start();
  const std::string session = hello();
  ASSERT_FALSE(session.empty());
  for (const char* type : {"play", "play", "pause"}) {
    auto [status, body] = post(
        "/api/postEvent/batch.json",
        envelopeOf(batchText(session, "{\"title\":\"" + std::string(type) + " the film\"}")));
    ASSERT_EQ(status, 200) << body;
  }
  ASSERT_EQ(collector_.stop(), 0);
  // What an older collector left: the rows only.
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((dataDir_ + "/collector.db").c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db,
                         "DROP TABLE events_text; DROP VIEW events_search; DROP TABLE type_counts; "
                         "DROP TABLE event_rate; DROP TABLE session_events; DROP TABLE counters; "
                         "PRAGMA user_version = 0;",
                         nullptr, nullptr, nullptr),
            SQLITE_OK)
      << sqlite3_errmsg(db);
  sqlite3_close(db);

  start();
  const Json counted = summary();
  EXPECT_EQ(counted.value("events", 0), 3) << counted.dump();
  EXPECT_EQ(counted.value("sessions", 0), 1);
  ASSERT_EQ(counted["eventTypes"].size(), 1u);  // all "big"
  EXPECT_EQ(counted["eventTypes"][0].value("count", 0), 3);
  auto get = [&](const std::string& target) {
    auto res = client()->Get(target.c_str());
    return res && res->status == 200 ? Json::parse(res->body) : Json();
  };
  EXPECT_EQ(get("/inspect/api/sessions")["sessions"][0].value("eventCount", 0), 3);
  EXPECT_EQ(get("/inspect/api/events?q=PLAY%20the")["events"].size(), 2u);
  std::int64_t charted = 0;
  const Json rate = get("/inspect/api/rate?period=3600&bucket=60");
  for (const Json& bucket : rate["buckets"]) charted += bucket.value("count", 0);
  EXPECT_EQ(charted, 3) << rate.dump();
  // And the new rows are counted on top.
  auto [status, body] = post("/api/postEvent/batch.json", envelopeOf(batchText(session, "{}")));
  ASSERT_EQ(status, 200) << body;
  EXPECT_EQ(summary().value("events", 0), 4);
}

}  // namespace
}  // namespace telvo
