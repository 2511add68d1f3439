#pragma once
// Where the application keeps its files, following the XDG base directories. Read from
// the environment on every call so that tests can point a process at a private home.
#include <filesystem>

namespace vell::paths {

std::filesystem::path applicationSupport();  // $XDG_DATA_HOME, else ~/.local/share
std::filesystem::path configHome();          // $XDG_CONFIG_HOME, else ~/.config
std::filesystem::path temporaryDirectory();  // $TMPDIR, else /tmp

std::filesystem::path vellDataDirectory();   // <applicationSupport>/Vell
std::filesystem::path recordingsDirectory(); // <applicationSupport>/Vell/Recordings
std::filesystem::path insuranceDirectory();  // <applicationSupport>/Vell/Insurance
std::filesystem::path defaultsFile();        // <configHome>/Vell/defaults.json
std::filesystem::path autostartEntry();      // <configHome>/autostart/vell.desktop

}  // namespace vell::paths
