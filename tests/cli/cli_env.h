#pragma once
// Runs the vell program inside the test's private home, away from any desktop keyring.
#include <string>

#include "tests/support/temp_home.h"

namespace vell::test {

inline CommandResult runVell(const TempHome& home, const std::string& arguments, const std::string& input = "") {
    std::string command = "env -u DBUS_SESSION_BUS_ADDRESS XDG_RUNTIME_DIR='" + home.root().string() + "' LANG=C.UTF-8 ";
    if (!input.empty()) command = "printf '%s\\n' '" + input + "' | " + command;
    return runCommand(command + "'" + binaryPath("vell").string() + "' " + arguments + " 2>&1");
}

}  // namespace vell::test
