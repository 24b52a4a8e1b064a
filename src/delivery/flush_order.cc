#include "delivery/flush_order.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "encoding/key_order.h"

namespace telvo {
namespace delivery {

void sortByTimestamp(std::deque<QueuedEvent>& events) {
  auto earlier = [](const QueuedEvent& a, const QueuedEvent& b) {
    return a.timestamp() < b.timestamp();
  };
  // Capture stamps events in order, so the queue is nearly always sorted
  // already; a check is far cheaper than a merge sort's moves.
  if (std::is_sorted(events.begin(), events.end(), earlier)) return;
  // The sort moves small (timestamp, place) pairs; each event then moves
  // once, to its place.
  std::vector<encoding::KeyAndPlace> order;
  order.reserve(events.size());
  for (std::size_t i = 0; i < events.size(); ++i) order.emplace_back(events[i].timestamp(), i);
  encoding::sortByKey(order);
  std::deque<QueuedEvent> sorted;
  for (const auto& key : order) sorted.push_back(std::move(events[key.second]));
  events.swap(sorted);
}

}  // namespace delivery
}  // namespace telvo
