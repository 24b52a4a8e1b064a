// Inspector: the collector's web page and the small read-only JSON API it
// reads, served by the collector's HTTPS server next to the service routes.
//
//   GET /                                   the page (also /inspect/)
//   GET /inspect/static/<file>              its script and style sheet
//   GET /favicon.ico                        its icon
//   GET /inspect/api/summary                row counts, last ids, event types,
//                                           what the connection bounds cut off
//   GET /inspect/api/sessions?limit=        sessions with their hello exchange,
//                                           event count and last arrival
//   GET /inspect/api/events?after=&before=&since=&session=&type=&q=&limit=&preview=
//                                           events newest first, data cut to
//                                           `preview` characters (default 200)
//   GET /inspect/api/events/<id>            one event with its whole data
//   GET /inspect/api/errors?after=&before=&session=&limit=
//   GET /inspect/api/problems?after=&before=&limit=
//   GET /inspect/api/problems/<id>/body     the raw body of the request
//   GET /inspect/api/rate?period=&bucket=   events per bucket and type over the
//                                           last `period` seconds
//
// Query parameters come from anywhere that can reach the port: numbers are
// range-checked, texts bounded, pages at most kMaxPageRows rows; anything
// out of range is answered 400 with one line saying which parameter. Every
// device value leaves as a JSON string; the page shows it as text.
//
// Every query runs on a reader of a small pool, bounded in time: one that
// takes longer is answered 503 ("search took too long" for a text search),
// and holds up no other. A text search answers after its slice with what
// it found and "searchedTo", where the next request goes on.
//
// Thread-safe.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "collector/collector_store.h"
#include "collector/tls_server.h"

namespace httplib {
class Server;
struct Response;
}

namespace telvo::tool {

// A few read-only connections to the collector's database, each with a time
// limit on its queries (and a slice for searches, 0: none), lent to one
// request at a time: a slow query holds one of them for at most its limit,
// and the others go on meanwhile.
class ReaderPool {
 public:
  ReaderPool(std::vector<std::unique_ptr<CollectorStore>> readers,
             std::chrono::milliseconds timeLimit,
             std::chrono::milliseconds searchSlice = std::chrono::milliseconds(0));

  class Lent {
   public:
    Lent(ReaderPool* pool, CollectorStore* reader) : pool_(pool), reader_(reader) {}
    Lent(Lent&& other) noexcept : pool_(other.pool_), reader_(other.reader_) {
      other.reader_ = nullptr;
    }
    Lent(const Lent&) = delete;
    Lent& operator=(const Lent&) = delete;
    Lent& operator=(Lent&&) = delete;
    ~Lent() {
      if (reader_) pool_->giveBack(reader_);
    }
    explicit operator bool() const { return reader_ != nullptr; }
    CollectorStore* operator->() const { return reader_; }
    CollectorStore& operator*() const { return *reader_; }

   private:
    ReaderPool* pool_;
    CollectorStore* reader_;
  };

  // A free reader, waiting for one if need be (nothing when none came free
  // in time).
  Lent borrow();
  std::chrono::milliseconds timeLimit() const { return timeLimit_; }

 private:
  void giveBack(CollectorStore* reader);

  std::vector<std::unique_ptr<CollectorStore>> readers_;
  const std::chrono::milliseconds timeLimit_;
  std::mutex mutex_;
  std::condition_variable available_;
  std::vector<CollectorStore*> free_;  // guarded by mutex_
};

class Inspector {
 public:
  // `readers` must outlive the server.
  explicit Inspector(ReaderPool& readers) : readers_(readers) {}

  void installRoutes(httplib::Server& server);
  // Where the summary reads what the connection bounds cut off.
  void setConnectionCounters(std::function<ConnectionCounters()> counters) {
    connectionCounters_ = std::move(counters);
  }
  // Where the inspector says, once each, that a bound stopped a query.
  void setLog(std::function<void(const std::string&)> log) { log_ = std::move(log); }

 private:
  // Runs `work` on a reader lent for it; answers 503 when none is free, or
  // when the reader's time ran out ("search took too long" for a search).
  void withReader(httplib::Response& res, bool search,
                  const std::function<void(CollectorStore&)>& work);

  void note(std::atomic<std::uint64_t> Inspector::*counter, const std::string& what);

  ReaderPool& readers_;
  std::function<ConnectionCounters()> connectionCounters_;
  std::function<void(const std::string&)> log_;
  std::atomic<std::uint64_t> timedOut_{0};  // queries stopped at their time limit
  std::atomic<std::uint64_t> busy_{0};      // queries that found no reader free
};

}  // namespace telvo::tool
