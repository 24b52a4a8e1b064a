// The library's diagnostics: one line per call to a replaceable sink
// (default: standard error). Clients write only while their debug flag is set;
// the configuration's missing-key messages are always written.
#pragma once

#include "telvo/export.h"

#include <functional>
#include <string>

namespace telvo {

using LogSink = std::function<void(const std::string& line)>;

// Replaces the sink; an empty function restores standard error. The sink is
// called without any library lock held, from any thread.
TELVO_API void setLogSink(LogSink sink);

// Writes one line (no trailing newline needed).
TELVO_API void log(const std::string& line);

}  // namespace telvo
