#include "support/https_test_server.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <stdexcept>

#include "../../tools/common/certificate.h"

namespace telvo::test {

namespace {

bool sameName(const std::string& a, const std::string& b) {
  return strcasecmp(a.c_str(), b.c_str()) == 0;
}

constexpr const char* kSetAsideEncoding = "X-Telvo-Test-Set-Aside-Content-Encoding";

// httplib puts the peer's and its own address among the request's headers.
bool isPseudoHeader(const std::string& name) {
  return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" ||
         name == "LOCAL_PORT";
}

}  // namespace

std::string RecordedRequest::header(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (sameName(key, name)) return value;
  }
  return "";
}

bool RecordedRequest::hasHeader(const std::string& name) const {
  return std::any_of(headers.begin(), headers.end(),
                     [&](const auto& field) { return sameName(field.first, name); });
}

// httplib hands each accepted socket to its task queue once, so counting
// enqueued tasks counts connections.
class HttpsTestServer::CountingTaskQueue : public httplib::TaskQueue {
 public:
  CountingTaskQueue(std::size_t threads, std::shared_ptr<std::atomic<std::size_t>> count)
      : pool_(threads), count_(std::move(count)) {}
  void enqueue(std::function<void()> fn) override {
    ++*count_;
    pool_.enqueue(std::move(fn));
  }
  void shutdown() override { pool_.shutdown(); }

 private:
  httplib::ThreadPool pool_;
  std::shared_ptr<std::atomic<std::size_t>> count_;
};

HttpsTestServer::HttpsTestServer() : HttpsTestServer(Options()) {}

HttpsTestServer::HttpsTestServer(Options options)
    : options_(options), connections_(std::make_shared<std::atomic<std::size_t>>(0)) {
  char folderTemplate[] = "/tmp/telvo-https-XXXXXX";
  if (!mkdtemp(folderTemplate))
    throw std::runtime_error("cannot make a folder for the certificate");
  folder_ = folderTemplate;
  std::string error;
  auto files = tool::writeSelfSignedCertificateFiles(folder_, &error);
  if (!files) throw std::runtime_error(error);
  certificateFile_ = files->certificatePath;
  keyFile_ = files->privateKeyPath;

  server_ = std::make_unique<httplib::SSLServer>(certificateFile_.c_str(), keyFile_.c_str());
  if (!server_->is_valid()) throw std::runtime_error("httplib cannot serve the certificate");
  auto threads = options_.threads;
  auto connections = connections_;
  server_->new_task_queue = [threads, connections] {
    return new CountingTaskQueue(threads, connections);
  };
  server_->set_keep_alive_max_count(options_.keepAliveMaxCount);
  server_->set_keep_alive_timeout(options_.keepAliveTimeoutSeconds);
  server_->set_tcp_nodelay(true);  // accepted sockets inherit it; no Nagle stalls
  auto handler = [this](const httplib::Request& request, httplib::Response& response) {
    dispatch(request, response);
  };
  // httplib would inflate (or refuse) a body labelled "Content-Encoding: gzip"
  // before any handler sees it; the service's bodies carry that label without
  // being gzip, so the label is set aside until the body has been read raw.
  server_->set_pre_routing_handler([](const httplib::Request& request, httplib::Response&) {
    auto& mutableRequest = const_cast<httplib::Request&>(request);  // httplib's own object
    auto range = mutableRequest.headers.equal_range("Content-Encoding");
    std::vector<std::string> labels;
    for (auto it = range.first; it != range.second; ++it) labels.push_back(it->second);
    mutableRequest.headers.erase("Content-Encoding");
    for (auto& label : labels) mutableRequest.headers.emplace(kSetAsideEncoding, label);
    return httplib::Server::HandlerResponse::Unhandled;
  });
  const std::string any = ".*";
  server_->Get(any, handler);
  server_->Post(any, handler);
  server_->Put(any, handler);
  server_->Patch(any, handler);
  server_->Delete(any, handler);
  server_->Options(any, handler);

  port_ = server_->bind_to_any_port("127.0.0.1");
  if (port_ <= 0) throw std::runtime_error("cannot bind a port on 127.0.0.1");
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!server_->is_running() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!server_->is_running()) {
    stop();
    throw std::runtime_error("the HTTPS test server did not start");
  }
}

HttpsTestServer::~HttpsTestServer() {
  stop();
  if (!keyFile_.empty()) ::unlink(keyFile_.c_str());
  if (!certificateFile_.empty()) ::unlink(certificateFile_.c_str());
  if (!folder_.empty()) ::rmdir(folder_.c_str());
}

void HttpsTestServer::stop() {
  if (server_) server_->stop();
  if (thread_.joinable()) thread_.join();
}

std::string HttpsTestServer::url(const std::string& path) const {
  return "https://127.0.0.1:" + std::to_string(port_) + path;
}

void HttpsTestServer::route(const std::string& method, const std::string& path, Handler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& entry : routes_) {
    if (entry.first.first == method && entry.first.second == path) {
      entry.second = std::move(handler);
      return;
    }
  }
  routes_.push_back({{method, path}, std::move(handler)});
}

void HttpsTestServer::fallback(Handler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  fallback_ = std::move(handler);
}

void HttpsTestServer::dispatch(const httplib::Request& request, httplib::Response& response) {
  RecordedRequest recorded;
  recorded.method = request.method;
  recorded.path = request.path;
  recorded.target = request.target;
  recorded.body = request.body;
  recorded.remotePort = request.remote_port;
  auto& mutableRequest = const_cast<httplib::Request&>(request);  // httplib's own object
  std::vector<std::string> labels;
  for (const auto& [name, value] : request.headers) {
    if (name == kSetAsideEncoding) {
      labels.push_back(value);
      recorded.headers.emplace_back("Content-Encoding", value);
    } else if (!isPseudoHeader(name)) {
      recorded.headers.emplace_back(name, value);
    }
  }
  std::stable_sort(recorded.headers.begin(), recorded.headers.end(),
                   [](const auto& a, const auto& b) {
                     return strcasecmp(a.first.c_str(), b.first.c_str()) < 0;
                   });
  // The body is in; handlers see the label again.
  mutableRequest.headers.erase(kSetAsideEncoding);
  for (auto& label : labels) mutableRequest.headers.emplace("Content-Encoding", label);

  Handler handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(std::move(recorded));
    for (const auto& entry : routes_) {
      if (entry.first.first == request.method && entry.first.second == request.path) {
        handler = entry.second;
      }
    }
    if (!handler) handler = fallback_;
  }
  arrived_.notify_all();
  if (handler) {
    handler(request, response);
  } else {
    response.status = 404;
  }
}

std::vector<RecordedRequest> HttpsTestServer::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::size_t HttpsTestServer::requestCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_.size();
}

bool HttpsTestServer::waitForRequests(std::size_t count, double timeoutSeconds) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return arrived_.wait_for(lock, std::chrono::duration<double>(timeoutSeconds),
                           [&] { return requests_.size() >= count; });
}

std::size_t HttpsTestServer::connectionCount() const { return connections_->load(); }

void HttpsTestServer::reset() {
  std::lock_guard<std::mutex> lock(mutex_);
  requests_.clear();
  connections_->store(0);
}

}  // namespace telvo::test
