// The collector's post checker on arbitrary posts: the first byte picks the
// kind and the labels, the rest is the body. Never crashes or throws.
#include <cstddef>
#include <cstdint>
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
  auto checked = telvo::tool::PostChecker::check(
      kinds[data[0] % 3], headers, body, 1763800000000,
      [](const std::string& session) { return session == "S-1"; });
  (void)checked.document.dump();
  return 0;
}
