#include "core/event_queue.h"

#include "telvo/log.h"

namespace telvo {
namespace core {

using delivery::QueuedEvent;

namespace {

Event toEvent(const QueuedEvent& queued) {
  Event event;
  event.setName(std::string(queued.name()));
  event.setData(std::string(queued.data()));
  event.setTimestamp(queued.timestamp());
  event.setSharedSession(queued.session());
  return event;
}

// A host's event (Telvo::setBatch): its data is parsed at the flush.
std::optional<QueuedEvent> fromEvent(const Event& event) {
  return QueuedEvent::make(event.name(), event.data(), /*dataIsCompactJson=*/false,
                           event.timestamp(), event.sharedSession());
}

}  // namespace

void EventQueue::push(QueuedEvent event) {
  std::lock_guard<std::mutex> lock(_mutex);
  _events.push_back(std::move(event));
}

std::deque<QueuedEvent> EventQueue::takeAll() {
  std::deque<QueuedEvent> taken;
  std::lock_guard<std::mutex> lock(_mutex);
  taken.swap(_events);
  return taken;
}

std::vector<Event> EventQueue::copy() const {
  std::lock_guard<std::mutex> lock(_mutex);
  std::vector<Event> events;
  events.reserve(_events.size());
  for (const QueuedEvent& event : _events) events.push_back(toEvent(event));
  return events;
}

std::deque<QueuedEvent> EventQueue::replace(const std::vector<Event>& events) {
  std::deque<QueuedEvent> records;
  for (const Event& event : events) {
    if (auto record = fromEvent(event)) {
      records.push_back(std::move(*record));
    } else {
      log("Telvo: dropped a queued event whose name is 4 GiB or longer");
    }
  }
  std::lock_guard<std::mutex> lock(_mutex);
  _events.swap(records);
  return records;
}

std::size_t EventQueue::bytes(const std::deque<QueuedEvent>& events) {
  std::size_t total = 0;
  for (const QueuedEvent& event : events) total += event.bytes();
  return total;
}

}  // namespace core
}  // namespace telvo
