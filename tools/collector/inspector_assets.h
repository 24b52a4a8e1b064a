// The inspector's static files (tools/collector/inspector/), built into the
// tool by embed_assets.cmake.
#pragma once

#include <cstddef>
#include <string_view>

namespace telvo::tool {

struct InspectorAsset {
  const char* name;  // the file name, e.g. "inspector.js"
  const unsigned char* data;
  std::size_t size;
};

// The file called `name`, or nullptr.
const InspectorAsset* findInspectorAsset(std::string_view name);

}  // namespace telvo::tool
