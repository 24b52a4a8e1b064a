// The client's in-memory queue of captured events.
//
// Safe to use from any thread; the client changes it on the main queue only,
// and a host may copy it (Telvo::batch) from elsewhere.
#pragma once

#include <deque>
#include <mutex>
#include <vector>

#include "delivery/queued_event.h"
#include "telvo/event.h"

namespace telvo {
namespace core {

class EventQueue {
 public:
  void push(delivery::QueuedEvent event);
  // Every queued event, leaving the queue empty.
  std::deque<delivery::QueuedEvent> takeAll();
  std::vector<Event> copy() const;
  // Events whose name is too long to record are left out (and logged).
  // Returns the events it replaced.
  std::deque<delivery::QueuedEvent> replace(const std::vector<Event>& events);
  // The bytes `events` count for against the queue's bound.
  static std::size_t bytes(const std::deque<delivery::QueuedEvent>& events);

 private:
  mutable std::mutex _mutex;
  std::deque<delivery::QueuedEvent> _events;  // guarded by _mutex
};

}  // namespace core
}  // namespace telvo
