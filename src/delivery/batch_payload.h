// The batch post: its JSON text, written in one pass, and its request.
// Pure functions of their arguments; any thread.
#pragma once

#include <deque>
#include <string>
#include <string_view>

#include "delivery/queued_event.h"
#include <optional>
#include "telvo/types.h"
#include "telvo/url_request.h"

namespace telvo {
namespace delivery {

struct BatchPayload {
  // {"sessionId": <sessionId>, "events": [{"eventType": name, "eventData":
  // data}...]} for `events` in the order given. Data the client wrote itself
  // is spliced in as it stands; foreign data is parsed and written again, and
  // becomes {} where it is not a JSON object or array.
  static std::string write(const Json& sessionId, const std::deque<QueuedEvent>& events);

  // One post of a flush split under a size bound.
  struct Part {
    std::string json;         // the payload (with no events when none fit)
    std::size_t events = 0;   // events in it
    std::size_t oversized = 0;  // events skipped: alone they exceed the bound
    std::size_t next = 0;     // where the next part starts
  };
  // The payload of as many events from `events[from]` on, in order, as fit
  // in `maxBytes` of JSON text (at least one, unless an event is too large
  // to fit even alone, which is skipped and counted).
  static Part write(const Json& sessionId, const std::deque<QueuedEvent>& events,
                    std::size_t from, std::size_t maxBytes);

  // The POST of `payload` to servicesUrl + batchApi + ".json", the settings
  // as a location shows them (encoding::textOrNull).
  static URLRequest request(std::string_view servicesUrl, std::string_view batchApi,
                            std::string_view payload);
};

}  // namespace delivery
}  // namespace telvo
