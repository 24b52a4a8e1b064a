// The user-defaults file reader on arbitrary file contents: never crashes,
// and what it accepts is an object that can be written back.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/defaults_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  auto values = telvo::platform::parseDefaultsFile(text);
  if (!values) return 0;
  if (!values->is_object()) std::abort();
  telvo::Json copy = *values;
  (void)copy.dump(-1, ' ', false, telvo::Json::error_handler_t::replace);
  return 0;
}
