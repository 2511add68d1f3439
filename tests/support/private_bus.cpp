#include "tests/support/private_bus.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace vell::test {

namespace fs = std::filesystem;

PrivateBus::PrivateBus(Kind kind) : kind_(kind) { start({}); }

PrivateBus::PrivateBus(const fs::path& serviceDirectory) : kind_(Kind::session) { start(serviceDirectory); }

void PrivateBus::start(const fs::path& serviceDirectory) {
    std::string pattern = (fs::temp_directory_path() / "vell-bus-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    dir_ = pattern;
    const auto config = dir_ / "bus.conf";
    std::ofstream(config) << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
                             "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                             "<busconfig><type>session</type><listen>unix:dir="
                          << dir_.string()
                          << "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow send_destination=\"*\" "
                             "eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow own=\"*\"/></policy>"
                          << (serviceDirectory.empty() ? std::string() : "<servicedir>" + serviceDirectory.string() + "</servicedir>")
                          << "</busconfig>\n";
    const std::string command = "dbus-daemon --config-file=" + config.string() + " --fork --print-address=1 --print-pid=1";
    FILE* out = ::popen(command.c_str(), "r");
    if (!out) throw std::runtime_error("dbus-daemon could not be started");
    char line[1024];
    if (std::fgets(line, sizeof line, out)) address_ = line;
    if (std::fgets(line, sizeof line, out)) pid_ = std::atoi(line);
    ::pclose(out);
    while (!address_.empty() && (address_.back() == '\n' || address_.back() == '\r')) address_.pop_back();
    if (address_.empty() || pid_ <= 0) throw std::runtime_error("dbus-daemon did not start");
    const char* variable = kind_ == Kind::session ? "DBUS_SESSION_BUS_ADDRESS" : "DBUS_SYSTEM_BUS_ADDRESS";
    if (const char* old = std::getenv(variable)) saved_ = old, hadSaved_ = true;
    ::setenv(variable, address_.c_str(), 1);
}

PrivateBus::~PrivateBus() {
    const char* variable = kind_ == Kind::session ? "DBUS_SESSION_BUS_ADDRESS" : "DBUS_SYSTEM_BUS_ADDRESS";
    if (hadSaved_) ::setenv(variable, saved_.c_str(), 1);
    else ::unsetenv(variable);
    if (pid_ > 0) ::kill(pid_, SIGTERM);
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

}  // namespace vell::test
