// Where the collector keeps its files, and the time texts its commands print
// and accept.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace telvo::tool {

// $TELVO_HOME/collector when TELVO_HOME is set and not empty, else
// ./.telvo/collector.
std::filesystem::path defaultCollectorDataDir();

// The database file inside a data folder.
std::filesystem::path collectorDatabasePath(const std::filesystem::path& dataDir);

// "2025-11-22T08:13:20.123Z" (UTC) for milliseconds since 1970.
std::string formatIsoTime(std::int64_t ms);

// Milliseconds since 1970 from either a whole number of milliseconds or an
// ISO-8601 text: "YYYY-MM-DD", optionally followed by "THH:MM", ":SS",
// ".fff" and a zone ("Z" or +HH:MM / -HH:MM; none means UTC). Nothing when
// the text is neither.
std::optional<std::int64_t> parseTime(const std::string& text);

}  // namespace telvo::tool
