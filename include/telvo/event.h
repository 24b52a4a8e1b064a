// Event: one captured analytics event waiting in a client's queue.
//
// A plain record. The client makes one per accepted Telvo::sendEvent call on
// its main queue and the flush removes it again; a host only ever sees copies
// (Telvo::batch). Not synchronised: share a copy, not a reference, across
// threads.
#pragma once

#include "telvo/export.h"

#include <memory>
#include <string>

#include "telvo/types.h"

namespace telvo {

class TELVO_API Event {
 public:
  Event() = default;

  // The event's values as compact JSON text (UTF-8): the host's object with
  // the service-clock "timestamp", or {"applicationName": ...} when the host
  // gave no data. Events handed back through Telvo::setBatch have their text
  // parsed by the flush (and sent as {} where it is not an object or array).
  const std::string& data() const { return _data; }
  void setData(std::string data) { _data = std::move(data); }

  // The event name as the host gave it.
  const std::string& name() const { return _name; }
  void setName(std::string name) { _name = std::move(name); }

  // The capture time on the service's clock in MILLISECONDS since 1970, kept
  // in the slot where a date keeps seconds (so as a calendar date it lies far
  // in the future). The flush orders events by it. Never convert it.
  double timestamp() const { return _timestamp; }
  void setTimestamp(double timestamp) { _timestamp = timestamp; }

  // The client's session id at capture time (null until set).
  Json session() const { return _session ? *_session : Json(); }
  void setSession(Json session) { _session = std::make_shared<const Json>(std::move(session)); }
  // The session shared with the other events of its session (null until set).
  const std::shared_ptr<const Json>& sharedSession() const { return _session; }
  void setSharedSession(std::shared_ptr<const Json> session) { _session = std::move(session); }

  // "name: <name>, session: <session>, data: <data>"; a text session appears
  // as it stands, any other as compact JSON, none as "(null)".
  std::string description() const;

 private:
  std::string _data;
  std::string _name;
  double _timestamp = 0;
  // Shared by every event of one session.
  std::shared_ptr<const Json> _session;
};

}  // namespace telvo
