// The collector's post checker on arbitrary posts: the first byte picks the
// kind and the labels, the rest is the body. Never crashes or throws, and
// every row it hands out points into the text it keeps.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "collector/post_checker.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  using telvo::tool::PostKind;
  const PostKind kinds[] = {PostKind::kHello, PostKind::kBatch, PostKind::kError};
  telvo::tool::PostHeaders headers;
  if (data[0] & 4) headers.contentType = "application/x-gzip";
  if (data[0] & 8) headers.contentEncoding = "gzip";
  if (data[0] & 16) headers.cookie = "telvoUUID=u";
  const std::string_view body(reinterpret_cast<const char*>(data + 1), size - 1);
  telvo::tool::CheckLimits limits;
  limits.envelope.maxInflatedBytes = 1 << 20;
  limits.maxProblems = 20;
  auto checked = telvo::tool::PostChecker::check(
      kinds[data[0] % 3], headers, body, [](const std::string& session) { return session == "S-1"; },
      limits);
  auto inside = [&](std::string_view view) {
    if (view.empty()) return;
    const std::string& text = *checked.text;
    if (view.data() < text.data() || view.data() + view.size() > text.data() + text.size()) {
      std::abort();
    }
  };
  if (checked.decoded) inside(checked.document);
  for (const auto& event : checked.events) {
    if (event.dataJson != "{}") inside(event.dataJson);
  }
  if (checked.error) inside(checked.error->dataJson);
  if (checked.problems.size() > limits.maxProblems + 1) std::abort();
  return 0;
}
