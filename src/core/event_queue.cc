#include "core/event_queue.h"

#include <limits>

#include "telvo/log.h"

namespace telvo {
namespace core {

static_assert(sizeof(QueuedEvent) <= 64, "a queued event's record grew past 64 bytes");

std::optional<QueuedEvent> QueuedEvent::make(std::string_view name, std::string_view data,
                                             bool dataIsClientJson, double timestamp,
                                             std::shared_ptr<const Json> session) {
  if (name.size() > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
  QueuedEvent event;
  event._text.reserve(name.size() + data.size());
  event._text.append(name).append(data);
  event._nameLength = static_cast<std::uint32_t>(name.size());
  event._dataIsClientJson = dataIsClientJson;
  event._timestamp = timestamp;
  event._session = std::move(session);
  return event;
}

Event QueuedEvent::toEvent() const {
  Event event;
  event._name = name();
  event._data = data();
  event._dataIsClientJson = _dataIsClientJson;
  event._timestamp = _timestamp;
  event._session = _session;
  return event;
}

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
  for (const QueuedEvent& event : _events) events.push_back(event.toEvent());
  return events;
}

void EventQueue::replace(const std::vector<Event>& events) {
  std::deque<QueuedEvent> records;
  for (const Event& event : events) {
    auto record = QueuedEvent::make(event._name, event._data, event._dataIsClientJson,
                                    event._timestamp, event._session);
    if (record) {
      records.push_back(std::move(*record));
    } else {
      log("Telvo: dropped a queued event whose name is 4 GiB or longer");
    }
  }
  std::deque<QueuedEvent> previous;  // freed outside the lock
  std::lock_guard<std::mutex> lock(_mutex);
  previous.swap(_events);
  _events.swap(records);
}

}  // namespace core
}  // namespace telvo
