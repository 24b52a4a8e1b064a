// One stable sort for the library's orderings (the flush's events, the
// cookies a request sends): each caller sorts small (key, place) pairs and
// then moves its own values once. Pure; any thread.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

namespace telvo {
namespace encoding {

using KeyAndPlace = std::pair<double, std::size_t>;

// Orders `keys` by key, pairs with equal keys keeping their order.
void sortByKey(std::vector<KeyAndPlace>& keys);

}  // namespace encoding
}  // namespace telvo
