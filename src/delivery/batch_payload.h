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

  // The POST of `payload` to servicesUrl + batchApi + ".json" (an absent
  // part reads "(null)").
  static URLRequest request(const std::optional<std::string>& servicesUrl,
                            const std::optional<std::string>& batchApi, std::string_view payload);
};

}  // namespace delivery
}  // namespace telvo
