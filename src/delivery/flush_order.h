// The order a flush sends its queued events in. Pure; any thread.
#pragma once

#include <deque>

#include "delivery/queued_event.h"

namespace telvo {
namespace delivery {

// Orders `events` by timestamp, events with equal timestamps keeping their
// queue order.
void sortByTimestamp(std::deque<QueuedEvent>& events);

}  // namespace delivery
}  // namespace telvo
