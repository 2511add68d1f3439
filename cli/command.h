#pragma once
// Each subcommand lives in its own file and registers itself here, so adding a command
// never touches main.cpp.
#include <CLI/CLI.hpp>
#include <functional>

namespace vell::cli {

struct Context {
    int exitCode = 0;
    int verbosity = 0;
    bool quiet = false;  // results and errors only: no hints, no progress
};

using CommandSetup = std::function<void(CLI::App& app, Context& context)>;

bool registerCommand(int order, CommandSetup setup);

// Exit codes shared by the commands.
inline constexpr int kExitOK = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitSignedOut = 3;
inline constexpr int kExitBusy = 4;  // another instance owns the data directories

}  // namespace vell::cli

// VELL_COMMAND(order, setupFunction): order sorts the help listing.
#define VELL_CLI_CONCAT2(a, b) a##b
#define VELL_CLI_CONCAT(a, b) VELL_CLI_CONCAT2(a, b)
#define VELL_COMMAND(order, fn) \
    static const bool VELL_CLI_CONCAT(vellCommandRegistered_, __LINE__) = ::vell::cli::registerCommand(order, fn)
