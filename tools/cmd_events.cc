// `telvo events [--data DIR] [--since TIME] [--type NAME] [--events-only] [--json]`:
// lists what the local collector stored: sessions, events, error reports and
// problems, as tables or as one JSON document. Opens the database read-only,
// so it may run while the collector does.
#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "collector/collector_paths.h"
#include "collector/collector_store.h"
#include "collector/row_json.h"
#include "command.h"
#include "telvo/types.h"

namespace telvo::tool {
namespace {

struct EventsOptions {
  std::string dataDir;
  std::string since;
  std::string type;
  bool json = false;
  bool eventsOnly = false;
};

// Fits a value into a table cell.
std::string cell(std::string text, std::size_t width) {
  for (char& c : text) {
    if (c == '\n' || c == '\r' || c == '\t') c = ' ';
  }
  if (text.size() > width) text = text.substr(0, width - 3) + "...";
  return text;
}

// Prints rows as left-aligned columns, each as wide as its widest cell.
void printTable(const std::string& title, const std::vector<std::string>& heading,
                const std::vector<std::vector<std::string>>& rows) {
  std::cout << title << " (" << rows.size() << ")\n";
  if (rows.empty()) return;
  std::vector<std::size_t> widths(heading.size());
  for (std::size_t i = 0; i < heading.size(); ++i) widths[i] = heading[i].size();
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  auto print = [&](const std::vector<std::string>& row) {
    std::string line = " ";
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += " " + row[i];
      if (i + 1 < row.size()) line += std::string(widths[i] - row[i].size(), ' ');
    }
    std::cout << line << "\n";
  };
  print(heading);
  for (const auto& row : rows) print(row);
}

std::string timeCell(const std::optional<std::int64_t>& ms) {
  return ms ? formatIsoTime(*ms) : "-";
}

std::string shortSession(const std::string& id) { return id.size() > 8 ? id.substr(0, 8) : id; }

int runEvents(const EventsOptions& options) {
  StoreFilter filter;
  if (!options.since.empty()) {
    filter.sinceMs = parseTime(options.since);
    if (!filter.sinceMs) {
      std::cerr << "telvo events: --since \"" << options.since
                << "\" is neither milliseconds since 1970 nor an ISO-8601 time "
                   "(2025-11-22T08:13:20Z)\n";
      return kExitUsage;
    }
  }
  if (!options.type.empty()) filter.type = options.type;
  std::filesystem::path dataDir =
      options.dataDir.empty() ? defaultCollectorDataDir() : std::filesystem::path(options.dataDir);
  std::filesystem::path dbPath = collectorDatabasePath(dataDir);
  std::error_code ec;
  if (!std::filesystem::exists(dbPath, ec)) {
    std::cerr << "telvo events: no collector database at " << dbPath.string()
              << " (start `telvo collector` with this data folder first)\n";
    return 1;
  }
  std::string error;
  auto store = CollectorStore::open(dbPath.string(), CollectorStore::Mode::kReadOnly, &error);
  if (!store) {
    std::cerr << "telvo events: " << error << "\n";
    return 1;
  }

  auto events = store->events(filter);
  std::vector<SessionRow> sessions;
  std::vector<ErrorRow> errors;
  std::vector<ProblemRow> problems;
  if (!options.eventsOnly) {
    sessions = store->sessions(filter);
    errors = store->errors(filter);
    problems = store->problems(filter);
  }

  if (options.json) {
    Json out = Json::object();
    out["events"] = Json::array();
    for (const auto& e : events) out["events"].push_back(eventJson(e));
    if (!options.eventsOnly) {
      out["sessions"] = Json::array();
      for (const auto& s : sessions) out["sessions"].push_back(sessionJson(s));
      out["errors"] = Json::array();
      for (const auto& e : errors) out["errors"].push_back(errorJson(e));
      out["problems"] = Json::array();
      for (const auto& p : problems) out["problems"].push_back(problemJson(p));
    }
    std::cout << jsonText(out, 2) << "\n";
    return 0;
  }

  if (!options.eventsOnly) {
    std::vector<std::vector<std::string>> rows;
    for (const auto& s : sessions) {
      rows.push_back({formatIsoTime(s.receivedMs), s.id, s.application.value_or("-"),
                      s.applicationVersion.value_or("-"), s.platform.value_or("-"),
                      s.property.value_or("-"), s.throttled ? "yes" : "no",
                      std::to_string(s.serviceMs - s.receivedMs)});
    }
    printTable("Sessions",
               {"RECEIVED", "SESSION", "APPLICATION", "VERSION", "PLATFORM", "PROPERTY",
                "THROTTLED", "SKEW MS"},
               rows);
    std::cout << "\n";
  }
  std::vector<std::vector<std::string>> rows;
  for (const auto& e : events) {
    rows.push_back({formatIsoTime(e.receivedMs), timeCell(e.eventMs), shortSession(e.sessionId),
                    cell(e.type, 32), cell(e.dataJson, 70)});
  }
  printTable("Events", {"RECEIVED", "EVENT TIME (SERVICE)", "SESSION", "TYPE", "DATA"}, rows);
  if (options.eventsOnly) return 0;

  rows.clear();
  for (const auto& e : errors) {
    rows.push_back({formatIsoTime(e.receivedMs), timeCell(e.errorMs), shortSession(e.sessionId),
                    cell(e.errorCodeJson, 24), cell(e.dataJson, 70)});
  }
  std::cout << "\n";
  printTable("Errors", {"RECEIVED", "ERROR TIME (SERVICE)", "SESSION", "CODE", "DATA"}, rows);

  rows.clear();
  for (const auto& p : problems) {
    rows.push_back(
        {formatIsoTime(p.receivedMs), p.method + " " + cell(p.path, 48), cell(p.description, 100)});
  }
  std::cout << "\n";
  printTable("Problems", {"RECEIVED", "REQUEST", "DESCRIPTION"}, rows);
  return 0;
}

const bool registered = registerCommand(60, [](CLI::App& app) {
  auto* cmd = app.add_subcommand("events", "List what the local collector received");
  auto options = std::make_shared<EventsOptions>();
  cmd->add_option("--data", options->dataDir,
                  "Collector data folder (default $TELVO_HOME/collector or ./.telvo/collector)");
  cmd->add_option("--since", options->since,
                  "Only rows received at or after TIME (ISO-8601, or milliseconds since 1970)");
  cmd->add_option("--type", options->type, "Only events of this type");
  cmd->add_flag("--events-only", options->eventsOnly,
                "Leave out sessions, error reports and problems");
  cmd->add_flag("--json", options->json, "Print one JSON document instead of tables");
  return Command{cmd, [options] { return runEvents(*options); }};
});

}  // namespace
}  // namespace telvo::tool
