#include "telvo/url_request.h"

#include <algorithm>

#include "encoding/text.h"

namespace telvo {

namespace {

bool sameFieldName(const std::string& a, const std::string& b) {
  return encoding::equalsIgnoringCase(a, b);
}

}  // namespace

void URLRequest::setValue(const std::string& value, const std::string& field) {
  auto matches = [&field](const auto& entry) { return sameFieldName(entry.first, field); };
  auto first = std::find_if(allHTTPHeaderFields.begin(), allHTTPHeaderFields.end(), matches);
  if (first == allHTTPHeaderFields.end()) {
    allHTTPHeaderFields.emplace_back(field, value);
    return;
  }
  // The field keeps its place; any later duplicates (from setAllHTTPHeaderFields) go.
  first->second = value;
  allHTTPHeaderFields.erase(std::remove_if(first + 1, allHTTPHeaderFields.end(), matches),
                            allHTTPHeaderFields.end());
}

std::optional<std::string> URLRequest::valueForHTTPHeaderField(const std::string& field) const {
  for (const auto& [name, value] : allHTTPHeaderFields) {
    if (sameFieldName(name, field)) return value;
  }
  return std::nullopt;
}

}  // namespace telvo
