#include "delivery/curl_client.h"

#include <pthread.h>

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "encoding/text.h"
#include "telvo/http_cookie.h"
#include "telvo/log.h"

namespace telvo {
namespace delivery {

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr const char* kTransferErrorDomain = "telvo.transport";
// A response body beyond this is refused rather than held in memory.
constexpr size_t kMaxResponseBytes = 64u << 20;
constexpr long kMaxConnectionsPerHost = 6;
constexpr long kConnectionCacheSize = 16;
constexpr size_t kIdleHandlePoolSize = 16;
constexpr double kDefaultTimeoutSeconds = 60.0;
// No transfer runs longer than this, however steadily its data trickles.
constexpr double kLongestTransfer = 600.0;
constexpr long kCACacheSeconds = 24 * 60 * 60;

using encoding::equalsIgnoringCase;
bool sameName(std::string_view a, const char* b) { return equalsIgnoringCase(a, b); }

// RFC 9110 token characters: what a method or a field name may be made of.
bool isToken(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           std::string_view("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) != std::string_view::npos;
  });
}

bool isFieldValue(const std::string& text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos;
}

std::string trimmed(std::string_view text) { return std::string(encoding::trimmed(text)); }

// How long the loop sleeps with nothing to do: only a wake-up ends it.
constexpr int kIdleWaitMs = 3600 * 1000;

// How long past the grace time a stop waits for the last completions before
// it leaves the thread to finish on its own.
constexpr double kJoinMargin = 0.5;

SteadyClock::duration secondsToDuration(double seconds) {
  return std::chrono::duration_cast<SteadyClock::duration>(
      std::chrono::duration<double>(std::clamp(seconds, 0.0, 3600.0)));
}

Error transferError(std::int64_t code, std::string message) {
  return Error{kTransferErrorDomain, code, std::move(message)};
}

}  // namespace

class CurlClient::Engine final : public std::enable_shared_from_this<Engine> {
 public:
  explicit Engine(Options options);
  ~Engine();

  void start();
  void send(URLRequest request, const HTTPCookieStorage* jar, Completion done);
  bool waitUntilIdle(double timeout);
  // Starts stopping: transfers in flight get `graceSeconds` from now.
  void requestStop(double graceSeconds);
  // Waits for the thread to end, at most until `until` (not at all from a
  // completion); a thread still running then is detached. True when the
  // thread has ended (or had already).
  bool join(SteadyClock::time_point until);
  void shutdown(double graceSeconds) {
    requestStop(graceSeconds);
    join(SteadyClock::now() + secondsToDuration(graceSeconds + kJoinMargin));
  }
  std::int64_t connectionsOpened() const { return connectionsOpened_.load(); }

 private:
  // One request from hand-over to completion. Lives on the heap so libcurl can
  // keep pointers to its buffers.
  struct Transfer {
    URLRequest request;
    const HTTPCookieStorage* jar = nullptr;
    Completion done;
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    HttpResponse response;
    char errorBuffer[CURL_ERROR_SIZE] = {};
    // Time without data: the request's time-out.
    SteadyClock::duration idleLimit{};
    SteadyClock::time_point lastActivity;
    curl_off_t downSeen = 0, upSeen = 0;
    bool idleTimedOut = false;
  };
  using TransferPtr = std::unique_ptr<Transfer>;

  static size_t onHeader(char* data, size_t size, size_t count, void* user);
  static size_t onBody(char* data, size_t size, size_t count, void* user);
  static int onProgress(void* user, curl_off_t downTotal, curl_off_t downNow, curl_off_t upTotal,
                        curl_off_t upNow);

  void run();
  // One pass of the loop: hand-overs, transfers, completions, a wait. False
  // once stopped with nothing left.
  bool step();
  // Prepares `transfer` and adds it to the multi handle; on failure its
  // response carries the error.
  void start(Transfer& transfer);
  // Sets the transfer up on an easy handle; false (with the response's error
  // set) where the request cannot be sent.
  bool prepare(Transfer& transfer);
  void deliver(std::vector<TransferPtr>& finished);
  // Runs the transfer's completion; what it throws is logged and dropped.
  static void complete(Transfer& transfer);
  void release(Transfer& transfer);
  bool onEngineThread() const { return std::this_thread::get_id() == threadId_.load(); }

  const Options options_;
  CURLM* multi_ = nullptr;
  CURLSH* share_ = nullptr;
  std::thread thread_;
  std::atomic<std::thread::id> threadId_{};
  std::atomic<std::int64_t> connectionsOpened_{0};

  // Touched by the engine thread only.
  std::unordered_map<CURL*, TransferPtr> running_;
  std::vector<CURL*> idleHandles_;

  std::mutex mutex_;
  std::condition_variable idle_;
  std::vector<TransferPtr> incoming_;  // guarded by mutex_
  size_t inFlight_ = 0;                // guarded by mutex_: handed over, completion not yet run
  bool stopping_ = false;              // guarded by mutex_
  SteadyClock::time_point deadline_;   // guarded by mutex_
  bool exited_ = false;                // guarded by mutex_
  std::condition_variable exitedSignal_;

  std::mutex joinMutex_;  // serialises joining the thread
};

namespace {

// Live engines, so that the process's exit can stop their threads before
// libcurl's and OpenSSL's own exit handlers tear the TLS state down.
struct Registry {
  std::mutex mutex;
  std::vector<std::weak_ptr<CurlClient::Engine>> engines;  // guarded by mutex
};

Registry& registry() {
  static Registry* instance = new Registry();  // leaked: used during exit
  return *instance;
}

}  // namespace

// ---------------------------------------------------------------------------
// Engine

CurlClient::Engine::Engine(Options options) : options_(std::move(options)) {
  multi_ = curl_multi_init();
  share_ = curl_share_init();
  if (!multi_ || !share_)
    throw std::runtime_error("libcurl could not make a multi or share handle");
  // The share handle is used by the engine thread only, so it needs no lock
  // callbacks.
  curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, kMaxConnectionsPerHost);
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, kConnectionCacheSize);
}

CurlClient::Engine::~Engine() {
  // Only reached once the thread has ended (it holds the engine while it runs).
  for (auto& [easy, transfer] : running_) {
    curl_multi_remove_handle(multi_, easy);
    release(*transfer);
  }
  for (CURL* easy : idleHandles_) curl_easy_cleanup(easy);
  if (multi_) curl_multi_cleanup(multi_);
  if (share_) curl_share_cleanup(share_);
  if (thread_.joinable()) thread_.detach();  // destroyed on its own thread
}

void CurlClient::Engine::start() {
  // The thread keeps its engine alive, so a completion may drop the last
  // reference to the transport without pulling the engine from under itself.
  thread_ = std::thread([self = shared_from_this()] { self->run(); });
  threadId_.store(thread_.get_id());
}

void CurlClient::Engine::send(URLRequest request, const HTTPCookieStorage* jar, Completion done) {
  auto transfer = std::make_unique<Transfer>();
  transfer->request = std::move(request);
  transfer->jar = jar;
  transfer->done = std::move(done);
  if (!transfer->request.url) {
    transfer->response.error = transferError(CURLE_URL_MALFORMAT, "the request has no URL");
  }
  {
    // The wake-up goes out under the lock: once the loop has ended, the
    // multi handle is gone.
    std::lock_guard<std::mutex> lock(mutex_);
    if (!stopping_) {
      incoming_.push_back(std::move(transfer));
      ++inFlight_;
      curl_multi_wakeup(multi_);
    }
  }
  if (!transfer) return;
  // Stopped: the request still gets its outcome, a cancellation, here.
  log("telvo: transport stopped; request to " +
      (transfer->request.url ? transfer->request.url->absoluteString() : "(no URL)") +
      " cancelled");
  transfer->response.error =
      transferError(CURLE_ABORTED_BY_CALLBACK, "cancelled: the transport has shut down");
  complete(*transfer);
}

bool CurlClient::Engine::waitUntilIdle(double timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  // From a completion the wait could only end by time-out.
  if (onEngineThread()) return inFlight_ == 0;
  auto limit = std::chrono::duration<double>(std::max(0.0, timeout));
  return idle_.wait_for(lock, limit, [this] { return inFlight_ == 0; });
}

void CurlClient::Engine::requestStop(double graceSeconds) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!stopping_) {
      stopping_ = true;
      deadline_ = SteadyClock::now() + secondsToDuration(graceSeconds);
    }
    if (multi_) curl_multi_wakeup(multi_);
  }
}

bool CurlClient::Engine::join(SteadyClock::time_point until) {
  if (onEngineThread()) return false;  // the loop sees the flag once this completion returns
  std::lock_guard<std::mutex> joining(joinMutex_);
  if (!thread_.joinable()) {
    std::lock_guard<std::mutex> lock(mutex_);
    return exited_;
  }
  bool exited;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    exited = exitedSignal_.wait_until(lock, until, [this] { return exited_; });
  }
  if (exited) {
    thread_.join();
  } else {
    // A completion still runs host code (a delegate, an observer, a store's
    // fsync): the host is not held for it. The thread owns the engine and
    // ends on its own.
    log("telvo: the transport thread did not stop in time; it is left to finish on its own");
    thread_.detach();
  }
  return exited;
}

void CurlClient::Engine::run() {
  // Named, so that a device's `top -H` tells it from the host's threads.
  pthread_setname_np(pthread_self(), "telvo-transport");
  // One failure must not end the thread: later requests would wait forever.
  for (;;) {
    try {
      if (!step()) break;
    } catch (const std::exception& e) {
      log(std::string("telvo: transport loop recovered from an exception: ") + e.what());
    } catch (...) {
      log("telvo: transport loop recovered from an unknown exception");
    }
  }
  // Stopped: the open connections close now, not when the last reference
  // to the client goes.
  for (CURL* easy : idleHandles_) curl_easy_cleanup(easy);
  idleHandles_.clear();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (running_.empty()) {
      curl_multi_cleanup(multi_);
      multi_ = nullptr;
    }
    exited_ = true;
  }
  exitedSignal_.notify_all();
}

bool CurlClient::Engine::step() {
  std::vector<TransferPtr> arrived;
  bool stopping;
  SteadyClock::time_point deadline;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    arrived.swap(incoming_);
    stopping = stopping_;
    deadline = deadline_;
  }

  // Room for every transfer that can finish in this step, so that moving one
  // into it cannot fail and lose it.
  std::vector<TransferPtr> finished;
  finished.reserve(arrived.size() + running_.size());
  for (auto& transfer : arrived) {
    if (!transfer->response.error) start(*transfer);
    if (transfer->easy && !transfer->response.error) {
      CURL* easy = transfer->easy;
      running_.emplace(easy, std::move(transfer));
      continue;
    }
    finished.push_back(std::move(transfer));
  }

  int stillRunning = 0;
  curl_multi_perform(multi_, &stillRunning);
  int queued = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
    if (message->msg != CURLMSG_DONE) continue;
    CURL* easy = message->easy_handle;
    const CURLcode result = message->data.result;
    curl_multi_remove_handle(multi_, easy);
    auto it = running_.find(easy);
    if (it == running_.end()) continue;
    TransferPtr transfer = std::move(it->second);
    running_.erase(it);
    long connects = 0;
    if (curl_easy_getinfo(easy, CURLINFO_NUM_CONNECTS, &connects) == CURLE_OK) {
      connectionsOpened_ += connects;
    }
    if (transfer->idleTimedOut) {
      transfer->response.error = transferError(
          CURLE_OPERATION_TIMEDOUT, "timed out: no data for " +
                                        std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                           transfer->idleLimit)
                                                           .count()) +
                                        " ms");
    } else if (result != CURLE_OK) {
      const char* text = transfer->errorBuffer[0] ? transfer->errorBuffer : curl_easy_strerror(result);
      transfer->response.error = transferError(result, text);
    }
    finished.push_back(std::move(transfer));
  }

  if (stopping && !running_.empty() && SteadyClock::now() >= deadline) {
    for (auto& [easy, transfer] : running_) {
      curl_multi_remove_handle(multi_, easy);
      transfer->response.error =
          transferError(CURLE_ABORTED_BY_CALLBACK, "cancelled: the transport shut down");
      finished.push_back(std::move(transfer));
    }
    running_.clear();
  }

  deliver(finished);

  if (stopping) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (running_.empty() && incoming_.empty()) return false;
  }

  // Idle, the loop sleeps until a request (or the stop) wakes it; a
  // transfer's own deadlines need a look at least once a second.
  int waitMs = running_.empty() ? kIdleWaitMs : 1000;
  if (stopping) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now());
    waitMs = static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 100));
  }
  curl_multi_poll(multi_, nullptr, 0, waitMs, nullptr);
  return true;
}

void CurlClient::Engine::start(Transfer& transfer) {
  try {
    if (!prepare(transfer)) return;
    if (curl_multi_add_handle(multi_, transfer.easy) != CURLM_OK) {
      transfer.response.error = transferError(CURLE_FAILED_INIT, "libcurl refused the transfer");
      return;
    }
    running_.reserve(running_.size() + 1);  // the emplace that follows cannot fail
  } catch (const std::exception& e) {
    if (transfer.easy) curl_multi_remove_handle(multi_, transfer.easy);
    transfer.response.error = transferError(
        CURLE_OUT_OF_MEMORY, std::string("the request could not be prepared: ") + e.what());
  }
}

bool CurlClient::Engine::prepare(Transfer& transfer) {
  const URLRequest& request = transfer.request;
  std::string method = request.HTTPMethod.empty() ? "GET" : request.HTTPMethod;
  if (!isToken(method)) {
    transfer.response.error =
        transferError(CURLE_BAD_FUNCTION_ARGUMENT, "bad HTTP method \"" + method + "\"");
    return false;
  }

  // The caller's fields as given; an empty value needs libcurl's "Name;" form.
  curl_slist* headers = nullptr;
  bool hasAccept = false, hasExpect = false, hasContentType = false, hasCookie = false,
       hasAcceptEncoding = false;
  auto append = [&headers](const std::string& line) {
    curl_slist* grown = curl_slist_append(headers, line.c_str());
    if (!grown) throw std::bad_alloc();
    headers = grown;
  };
  try {
    for (const auto& [name, value] : request.allHTTPHeaderFields) {
      if (!isToken(name) || !isFieldValue(value)) {
        curl_slist_free_all(headers);
        transfer.response.error =
            transferError(CURLE_BAD_FUNCTION_ARGUMENT, "bad header field \"" + name + "\"");
        return false;
      }
      hasAccept |= sameName(name, "Accept");
      hasExpect |= sameName(name, "Expect");
      hasAcceptEncoding |= sameName(name, "Accept-Encoding");
      hasContentType |= sameName(name, "Content-Type");
      hasCookie |= sameName(name, "Cookie");
      append(value.empty() ? name + ";" : name + ": " + value);
    }
    // The jar is read here, on this thread, not on the caller's.
    if (transfer.jar && request.HTTPShouldHandleCookies && !hasCookie) {
      const auto cookies = transfer.jar->cookiesForURL(*request.url);
      for (const auto& [name, value] : HTTPCookie::requestHeaderFieldsWithCookies(cookies)) {
        append(name + ": " + value);
      }
    }
    // libcurl's defaults that the caller did not ask for stay off the wire.
    if (!hasAccept) append("Accept:");
    if (!hasExpect) append("Expect:");
    if (!hasAcceptEncoding) append("Accept-Encoding:");
    if (!hasContentType) append("Content-Type:");
  } catch (...) {
    curl_slist_free_all(headers);
    throw;
  }
  transfer.headers = headers;

  CURL* easy;
  if (!idleHandles_.empty()) {
    easy = idleHandles_.back();
    idleHandles_.pop_back();
  } else {
    easy = curl_easy_init();
  }
  if (!easy) {
    transfer.response.error = transferError(CURLE_FAILED_INIT, "libcurl could not make an easy handle");
    return false;
  }
  transfer.easy = easy;

  curl_easy_setopt(easy, CURLOPT_URL, request.url->absoluteString().c_str());
  curl_easy_setopt(easy, CURLOPT_PRIVATE, &transfer);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_SHARE, share_);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorBuffer);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Engine::onHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Engine::onBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 16L);
  curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  // An answer the server encoded (Content-Encoding: gzip or deflate) arrives
  // decoded, as the platform's URL session hands it over. The field that
  // would ask for an encoding is suppressed above, and the request body goes
  // out as the caller made it.
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "gzip, deflate");
  curl_easy_setopt(easy, CURLOPT_HTTP_CONTENT_DECODING, 1L);

  // The request's time-out is time without data, connecting included, as the
  // platform's URL session counts it: any byte sent or received (a header
  // line, a piece of the body) starts it again (onHeader, onProgress); a
  // transfer that keeps trickling still ends after kLongestTransfer in all.
  double timeout = options_.requestTimeout > 0 ? options_.requestTimeout : request.timeoutInterval;
  if (!(timeout > 0) || !std::isfinite(timeout)) timeout = kDefaultTimeoutSeconds;
  timeout = std::min(timeout, kLongestTransfer);
  transfer.idleLimit = secondsToDuration(timeout);
  transfer.lastActivity = SteadyClock::now();
  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &Engine::onProgress);
  curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(kLongestTransfer * 1000));
  double connectTimeout = timeout;
  if (options_.connectTimeout > 0 && std::isfinite(options_.connectTimeout)) {
    connectTimeout = std::min(connectTimeout, options_.connectTimeout);
  }
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS,
                   static_cast<long>(std::ceil(connectTimeout * 1000)));
  if (!options_.caFile.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, options_.caFile.c_str());
  if (!options_.caPath.empty()) curl_easy_setopt(easy, CURLOPT_CAPATH, options_.caPath.c_str());
  // The parsed store stays in the multi handle, shared by every connection.
  curl_easy_setopt(easy, CURLOPT_CA_CACHE_TIMEOUT, kCACacheSeconds);
  if (!options_.proxy.empty()) curl_easy_setopt(easy, CURLOPT_PROXY, options_.proxy.c_str());

  static const char kNoBody[] = "";
  const bool hasBody = request.HTTPBody.has_value();
  const char* body = hasBody && !request.HTTPBody->empty()
                         ? reinterpret_cast<const char*>(request.HTTPBody->data())
                         : kNoBody;
  const curl_off_t bodySize = hasBody ? static_cast<curl_off_t>(request.HTTPBody->size()) : 0;
  if (sameName(method, "GET")) {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  } else if (sameName(method, "HEAD")) {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  } else if (sameName(method, "POST") || hasBody) {
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, bodySize);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body);
  }
  // libcurl picks the method from the options above; the caller's spelling
  // goes on the wire as given.
  if (method != "GET" && method != "HEAD" && method != "POST") {
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
  }
  return true;
}

size_t CurlClient::Engine::onHeader(char* data, size_t size, size_t count, void* user) {
  auto& transfer = *static_cast<Transfer*>(user);
  const size_t length = size * count;
  transfer.lastActivity = SteadyClock::now();  // the answer's fields are data too
  std::string_view line(data, length);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  if (line.substr(0, 5) == "HTTP/") {
    // A new response starts (after a 100-continue or a redirect): only the
    // final one's fields count.
    transfer.response.headers.clear();
  } else if (!line.empty() && (line.front() == ' ' || line.front() == '\t')) {
    if (!transfer.response.headers.empty()) {
      transfer.response.headers.back().second += " " + trimmed(line);
    }
  } else if (auto colon = line.find(':'); colon != std::string_view::npos && colon > 0) {
    transfer.response.headers.emplace_back(std::string(line.substr(0, colon)),
                                          trimmed(line.substr(colon + 1)));
  }
  return length;
}

int CurlClient::Engine::onProgress(void* user, curl_off_t, curl_off_t downNow, curl_off_t,
                                   curl_off_t upNow) {
  auto& transfer = *static_cast<Transfer*>(user);
  const auto now = SteadyClock::now();
  if (downNow != transfer.downSeen || upNow != transfer.upSeen) {
    transfer.downSeen = downNow;
    transfer.upSeen = upNow;
    transfer.lastActivity = now;
    return 0;
  }
  if (now - transfer.lastActivity < transfer.idleLimit) return 0;
  transfer.idleTimedOut = true;
  return 1;  // aborts the transfer
}

size_t CurlClient::Engine::onBody(char* data, size_t size, size_t count, void* user) {
  auto& transfer = *static_cast<Transfer*>(user);
  const size_t length = size * count;
  if (transfer.response.body.size() + length > kMaxResponseBytes) return 0;  // a write error
  transfer.response.body.insert(transfer.response.body.end(), data, data + length);
  return length;
}

void CurlClient::Engine::complete(Transfer& transfer) {
  try {
    transfer.done(transfer.request, transfer.response);
  } catch (const std::exception& e) {
    log(std::string("telvo: a transport completion threw: ") + e.what());
  } catch (...) {
    log("telvo: a transport completion threw an unknown exception");
  }
}

void CurlClient::Engine::deliver(std::vector<TransferPtr>& finished) {
  for (auto& transfer : finished) {
    if (transfer->easy && !transfer->response.error) {
      long status = 0;
      if (curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK) {
        transfer->response.status = status;
      }
    }
    release(*transfer);
    complete(*transfer);
    // What the completion holds (the delegate) goes with the transfer, before
    // the request counts as done.
    transfer.reset();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      --inFlight_;
    }
    idle_.notify_all();
  }
  finished.clear();
}

void CurlClient::Engine::release(Transfer& transfer) {
  if (transfer.easy) {
    if (idleHandles_.size() < kIdleHandlePoolSize) {
      curl_easy_reset(transfer.easy);
      idleHandles_.push_back(transfer.easy);
    } else {
      curl_easy_cleanup(transfer.easy);
    }
    transfer.easy = nullptr;
  }
  curl_slist_free_all(transfer.headers);
  transfer.headers = nullptr;
}

// ---------------------------------------------------------------------------
// CurlClient

namespace {

void stopAllAtExit() {
  CurlClient::stopAll(SteadyClock::now() +
                      secondsToDuration(CurlClient::kShutdownGrace + kJoinMargin));
}

void initialiseLibcurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
      throw std::runtime_error("libcurl could not be initialised");
    }
    // Registered after libcurl (and OpenSSL) set up their own exit handlers,
    // so it runs before them.
    std::atexit(stopAllAtExit);
  });
}

}  // namespace

std::shared_ptr<CurlClient> CurlClient::create(Options options) {
  initialiseLibcurlOnce();
  auto engine = std::make_shared<Engine>(std::move(options));
  engine->start();
  {
    std::lock_guard<std::mutex> lock(registry().mutex);
    auto& engines = registry().engines;
    engines.erase(std::remove_if(engines.begin(), engines.end(),
                                 [](const auto& weak) { return weak.expired(); }),
                  engines.end());
    engines.push_back(engine);
  }
  return std::shared_ptr<CurlClient>(new CurlClient(std::move(engine)));
}

CurlClient::CurlClient(std::shared_ptr<Engine> engine) : engine_(std::move(engine)) {}

CurlClient::~CurlClient() { engine_->shutdown(kShutdownGrace); }

void CurlClient::send(URLRequest request, const HTTPCookieStorage* jar, Completion done) {
  engine_->send(std::move(request), jar, std::move(done));
}

bool CurlClient::waitUntilIdle(double timeout) { return engine_->waitUntilIdle(timeout); }

void CurlClient::shutdown(double graceSeconds) { engine_->shutdown(graceSeconds); }

bool CurlClient::stopAll(std::chrono::steady_clock::time_point until) {
  std::vector<std::shared_ptr<Engine>> live;
  {
    std::lock_guard<std::mutex> lock(registry().mutex);
    for (auto& weak : registry().engines) {
      if (auto engine = weak.lock()) live.push_back(std::move(engine));
    }
  }
  // All stop together, so the caller waits for one grace time at most; the
  // last half second is left for completions to run.
  const double grace =
      std::chrono::duration<double>(until - SteadyClock::now()).count() - kJoinMargin;
  for (auto& engine : live) engine->requestStop(std::max(0.0, grace));
  bool ended = true;
  for (auto& engine : live) ended = engine->join(until) && ended;
  return ended;
}

std::int64_t CurlClient::connectionsOpened() const { return engine_->connectionsOpened(); }

}  // namespace delivery
}  // namespace telvo
