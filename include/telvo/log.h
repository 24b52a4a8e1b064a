// The library's diagnostics: one line per call to a replaceable sink
// (default: standard error). Clients write only while their debug flag is set;
// the configuration's missing-key messages are always written.
#pragma once

#include <functional>
#include <string>

namespace telvo {

using LogSink = std::function<void(const std::string& line)>;

// Replaces the sink; an empty function restores standard error. The sink is
// called without any library lock held, from any thread.
void setLogSink(LogSink sink);

// Writes one line (no trailing newline needed).
void log(const std::string& line);

}  // namespace telvo
