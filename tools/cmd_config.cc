// `telvo config [--env NAME] FILE|-`: shows the master configuration that a
// configuration document yields for an environment, as a client would see it.
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "command.h"
#include "common/input.h"
#include "encoding/json_text.h"
#include "telvo/telvo_master_config.h"
#include "telvo/types.h"

namespace telvo::tool {
namespace {

struct ConfigOptions {
  std::string environment;
  std::string file;
  CLI::Option* environmentOption = nullptr;
};

int runConfig(const ConfigOptions& options) {
  const std::string source = options.file == "-" ? "standard input" : options.file;
  std::string error;
  auto text = readInput(options.file, error);
  if (!text) {
    std::cerr << "telvo config: cannot read " << source << ": " << error << "\n";
    return kExitUsage;
  }
  if (!encoding::withinJsonDepth(*text)) {
    std::cerr << "telvo config: invalid JSON in " << source << ": it nests arrays and objects "
              << "more than " << encoding::kMaxJsonDepth << " deep\n";
    return kExitUsage;
  }
  Json document;
  try {
    document = Json::parse(*text);
  } catch (const Json::parse_error& e) {
    std::cerr << "telvo config: invalid JSON in " << source << ": " << e.what() << "\n";
    return kExitUsage;
  }
  std::optional<std::string> environment;
  if (options.environmentOption->count() > 0) environment = options.environment;
  try {
    auto config = TelvoMasterConfig::configFromDictionary(document, environment);
    std::cout << config->description() << "\n";
  } catch (const UsageError& e) {
    std::cerr << "telvo config: " << e.what() << "\n";
    return kExitUsage;
  }
  return 0;
}

const bool registered = registerCommand(30, [](CLI::App& app) {
  auto* cmd = app.add_subcommand(
      "config", "Print the master configuration a configuration document gives an environment");
  auto options = std::make_shared<ConfigOptions>();
  options->environmentOption = cmd->add_option(
      "--env", options->environment, "Environment whose section is laid over \"default\"");
  cmd->add_option("file", options->file, "Configuration document (JSON), or - for standard input")
      ->required();
  return Command{cmd, [options] { return runConfig(*options); }};
});

}  // namespace
}  // namespace telvo::tool
