// The master-configuration reader on arbitrary documents: a document either
// reads or is refused with UsageError; nothing else escapes.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "encoding/json_text.h"
#include "telvo/telvo_master_config.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  telvo::Json document = telvo::encoding::parseJson(text);
  if (document.is_discarded()) return 0;
  for (const char* environment : {"prod", "default", "staging"}) {
    try {
      auto master = telvo::TelvoMasterConfig::configFromDictionary(document, environment);
      (void)master->description();
    } catch (const telvo::UsageError&) {
    }
  }
  return 0;
}
