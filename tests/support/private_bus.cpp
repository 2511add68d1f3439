#include "tests/support/private_bus.h"

#include "tests/support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
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
    // Run as this process's child (not forked away), so it dies with the test however the
    // test ends; its address comes on a pipe.
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    std::string program = "dbus-daemon", configArg = "--config-file=" + config.string(), noFork = "--nofork",
                print = "--print-address=1";
    char* argv[] = {program.data(), configArg.data(), noFork.data(), print.data(), nullptr};
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        if (!dieWithParent(parent)) ::_exit(127);
        ::setpgid(0, 0);
        ::dup2(out[1], STDOUT_FILENO);
        ::execvp(argv[0], argv);
        ::_exit(127);
    }
    ::close(out[1]);
    std::string seen;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (seen.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p{out[0], POLLIN, 0};
        if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
        char buffer[512];
        const ssize_t n = ::read(out[0], buffer, sizeof buffer);
        if (n <= 0) break;
        seen.append(buffer, static_cast<size_t>(n));
    }
    ::close(out[0]);
    address_ = seen.substr(0, seen.find('\n'));
    while (!address_.empty() && (address_.back() == '\n' || address_.back() == '\r')) address_.pop_back();
    if (address_.empty()) {
        endProcess(pid_);
        throw std::runtime_error("dbus-daemon did not start");
    }
    const char* variable = kind_ == Kind::session ? "DBUS_SESSION_BUS_ADDRESS" : "DBUS_SYSTEM_BUS_ADDRESS";
    if (const char* old = std::getenv(variable)) saved_ = old, hadSaved_ = true;
    ::setenv(variable, address_.c_str(), 1);
}

PrivateBus::~PrivateBus() {
    const char* variable = kind_ == Kind::session ? "DBUS_SESSION_BUS_ADDRESS" : "DBUS_SYSTEM_BUS_ADDRESS";
    if (hadSaved_) ::setenv(variable, saved_.c_str(), 1);
    else ::unsetenv(variable);
    endProcess(pid_);
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

}  // namespace vell::test
