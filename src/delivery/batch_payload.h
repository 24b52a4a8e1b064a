// The batch post's JSON text, written in one pass.
#pragma once

#include <deque>
#include <string>

#include "core/event_queue.h"
#include "telvo/types.h"

namespace telvo {
namespace core {

struct BatchPayload {
  // {"sessionId": <sessionId>, "events": [{"eventType": name, "eventData":
  // data}...]} for `events` in the order given. Data the client wrote itself
  // is spliced in as it stands; foreign data is parsed and written again, and
  // becomes {} where it is not a JSON object or array.
  static std::string write(const Json& sessionId, const std::deque<QueuedEvent>& events);
};

}  // namespace core
}  // namespace telvo
