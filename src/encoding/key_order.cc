#include "encoding/key_order.h"

#include <algorithm>

namespace telvo {
namespace encoding {

void sortByKey(std::vector<KeyAndPlace>& keys) {
  std::stable_sort(keys.begin(), keys.end(),
                   [](const KeyAndPlace& a, const KeyAndPlace& b) { return a.first < b.first; });
}

}  // namespace encoding
}  // namespace telvo
