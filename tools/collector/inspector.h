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
// Thread-safe as the store is.
#pragma once

#include <functional>

#include "collector/collector_store.h"
#include "collector/tls_server.h"

namespace httplib {
class Server;
}

namespace telvo::tool {

class Inspector {
 public:
  // `store` (a reader of the collector's database) must outlive the server.
  explicit Inspector(CollectorStore& store) : store_(store) {}

  void installRoutes(httplib::Server& server);
  // Where the summary reads what the connection bounds cut off.
  void setConnectionCounters(std::function<ConnectionCounters()> counters) {
    connectionCounters_ = std::move(counters);
  }

 private:
  CollectorStore& store_;
  std::function<ConnectionCounters()> connectionCounters_;
};

}  // namespace telvo::tool
