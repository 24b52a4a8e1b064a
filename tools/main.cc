// The `telvo` command-line tool: envelope codec, configuration checks, the
// local collector and a client driver for smoke tests.
#include <iostream>
#include <map>
#include <vector>

#include "command.h"

namespace telvo::tool {
namespace {
std::multimap<int, Installer>& registry() {
  static std::multimap<int, Installer> installers;
  return installers;
}
}  // namespace

bool registerCommand(int order, Installer installer) {
  registry().emplace(order, std::move(installer));
  return true;
}

}  // namespace telvo::tool

int main(int argc, char** argv) {
  CLI::App app{"telvo: tools for the Telvo analytics client library"};
  app.require_subcommand(1);
  std::vector<telvo::tool::Command> commands;
  for (auto& [order, install] : telvo::tool::registry()) commands.push_back(install(app));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int status = app.exit(e);
    return status == 0 ? 0 : telvo::tool::kExitUsage;
  }
  for (auto& command : commands) {
    if (command.subcommand->parsed()) return command.run();
  }
  return telvo::tool::kExitUsage;
}
