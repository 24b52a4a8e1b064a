// The client's in-memory queue of captured events, kept compact: a queued
// event costs its text, one allocation and a 64-byte record.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "telvo/event.h"
#include "telvo/types.h"

namespace telvo {
namespace core {

class QueuedEvent {
 public:
  // Nothing when the name is too long to record (4 GiB or more).
  static std::optional<QueuedEvent> make(std::string_view name, std::string_view data,
                                         bool dataIsClientJson, double timestamp,
                                         std::shared_ptr<const Json> session);

  std::string_view name() const { return std::string_view(_text).substr(0, _nameLength); }
  std::string_view data() const { return std::string_view(_text).substr(_nameLength); }
  // The client wrote the data itself: one JSON object, fit to splice as is.
  bool dataIsClientJson() const { return _dataIsClientJson; }
  double timestamp() const { return _timestamp; }

  Event toEvent() const;

 private:
  std::string _text;  // the name, then the data, in one allocation
  std::uint32_t _nameLength = 0;
  bool _dataIsClientJson = false;
  double _timestamp = 0;
  std::shared_ptr<const Json> _session;
};

// Safe to use from any thread; the client changes it on the main queue only.
class EventQueue {
 public:
  void push(QueuedEvent event);
  // Every queued event, leaving the queue empty.
  std::deque<QueuedEvent> takeAll();
  std::vector<Event> copy() const;
  // Events whose name is too long to record are left out (and logged).
  void replace(const std::vector<Event>& events);

 private:
  mutable std::mutex _mutex;
  std::deque<QueuedEvent> _events;
};

}  // namespace core
}  // namespace telvo
