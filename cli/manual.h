#pragma once
// The manual page and the bash, zsh and fish completions, written from the same command
// table as the help at build time; and the recording ids the completions offer. Main
// thread of a command.
#include <CLI/CLI.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace vell::cli {

// Every option name of a command ("--json", "-q", ...).
std::vector<std::string> optionNames(const CLI::App& command);

// `date` (YYYY-MM-DD) is the page's date.
void printManual(CLI::App& app, std::string_view date);
// `shell`: bash, zsh or fish; false for another.
bool printCompletion(CLI::App& app, std::string_view shell);
// The ids `vell pending` prints and, for uploaded recordings, the service's: read from the
// files, so completing a word never starts the recorder or waits for the network.
void printRecordingIDs();

}  // namespace vell::cli
