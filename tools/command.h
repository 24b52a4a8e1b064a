// Registration of the `telvo` tool's commands.
//
// Each command lives in its own file and registers an installer with a static
// initialiser:
//
//   static const bool registered = telvo::tool::registerCommand(
//       10, [](CLI::App& app) {
//         auto* cmd = app.add_subcommand("encode", "...");
//         auto options = std::make_shared<Options>();
//         cmd->add_option(...);
//         return telvo::tool::Command{cmd, [options] { return run(*options); }};
//       });
//
// main() adds every command in `order`, parses the arguments and calls the
// runner of the command that was chosen; its result is the exit status.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>

namespace telvo::tool {

// Exit status for bad input or bad usage (a clear line goes to standard error).
constexpr int kExitUsage = 2;

struct Command {
  CLI::App* subcommand;
  std::function<int()> run;
};

using Installer = std::function<Command(CLI::App& app)>;

// Adds a command; commands appear in --help in ascending `order`.
bool registerCommand(int order, Installer installer);

}  // namespace telvo::tool
