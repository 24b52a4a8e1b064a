#include "delivery/queued_event.h"

#include <limits>

namespace telvo {
namespace delivery {

static_assert(sizeof(QueuedEvent) <= 72, "a queued event's record grew past 72 bytes");

std::optional<QueuedEvent> QueuedEvent::make(std::string_view name, std::string_view data,
                                             bool dataIsCompactJson, double timestamp,
                                             std::shared_ptr<const Json> session) {
  if (name.size() > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
  QueuedEvent event;
  event._text.reserve(name.size() + data.size());
  event._text.append(name).append(data);
  event._nameLength = static_cast<std::uint32_t>(name.size());
  event._dataIsCompactJson = dataIsCompactJson;
  event._timestamp = timestamp;
  event._session = std::move(session);
  return event;
}

}  // namespace delivery
}  // namespace telvo
