#pragma once
// What the benchmarks measure of a process they started: CPU time, wake-ups (the context
// switches of all its threads), peak RSS and PSS, read from /proc; and how they start one.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace vell::bench {

namespace fs = std::filesystem;

inline int sh(const std::string& command) { return std::system(command.c_str()); }

inline pid_t spawn(std::vector<std::string> args, const fs::path& output) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// A program run to its end: its CPU time (with the children it waited for), wall time and
// peak RSS; output and errors to one file.
struct Usage {
    double cpu = 0;
    double wall = 0;
    long maxRssKiB = 0;
    int status = -1;
};

inline Usage runToEnd(std::vector<std::string> args, const fs::path& output) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, output.c_str(), O_WRONLY | O_APPEND, 0644);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    Usage u;
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    const bool spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
    if (!spawned) return u;
    rusage r{};
    wait4(pid, &u.status, 0, &r);
    u.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    u.cpu = double(r.ru_utime.tv_sec + r.ru_stime.tv_sec) + double(r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
    u.maxRssKiB = r.ru_maxrss;
    return u;
}

struct Sample {
    double cpuSeconds = 0;
    long switches = 0;
    long peakRssKiB = 0;
    long pssKiB = 0;  // its share of the pages, shared libraries divided among their users
};

inline long field(const fs::path& status, const std::string& key) {
    std::ifstream in(status);
    std::string word;
    while (in >> word) {
        if (word == key) {
            long value = 0;
            in >> value;
            return value;
        }
    }
    return 0;
}

inline Sample sample(pid_t pid) {
    Sample s;
    const fs::path proc = "/proc/" + std::to_string(pid);
    std::ifstream stat(proc / "stat");
    std::string text((std::istreambuf_iterator<char>(stat)), {});
    auto close = text.rfind(')');
    if (close != std::string::npos) {
        std::vector<std::string> fields;
        std::string f;
        for (char c : text.substr(close + 2)) {
            if (c == ' ') fields.push_back(f), f.clear();
            else f += c;
        }
        // utime and stime are the 14th and 15th fields (11th and 12th after the name).
        if (fields.size() > 12) s.cpuSeconds = double(std::stol(fields[11]) + std::stol(fields[12])) / double(sysconf(_SC_CLK_TCK));
    }
    std::error_code ec;
    for (const auto& task : fs::directory_iterator(proc / "task", ec)) {
        s.switches += field(task.path() / "status", "voluntary_ctxt_switches:") +
                      field(task.path() / "status", "nonvoluntary_ctxt_switches:");
    }
    s.peakRssKiB = field(proc / "status", "VmHWM:");
    s.pssKiB = field(proc / "smaps_rollup", "Pss:");
    return s;
}

// One thread's counters, by its name (threads that share a name are added together).
struct ThreadSample {
    double cpuSeconds = 0;
    long switches = 0;
};

inline std::map<std::string, ThreadSample> threadSamples(pid_t pid) {
    std::map<std::string, ThreadSample> threads;
    std::error_code ec;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
        std::ifstream stat(task.path() / "stat");
        std::string text((std::istreambuf_iterator<char>(stat)), {});
        const auto open = text.find('('), close = text.rfind(')');
        if (open == std::string::npos || close == std::string::npos) continue;
        std::istringstream rest(text.substr(close + 2));
        std::string f;
        std::vector<std::string> fields;
        while (rest >> f) fields.push_back(f);
        if (fields.size() <= 12) continue;
        auto& t = threads[text.substr(open + 1, close - open - 1)];
        t.cpuSeconds += double(std::stol(fields[11]) + std::stol(fields[12])) / double(sysconf(_SC_CLK_TCK));
        t.switches += field(task.path() / "status", "voluntary_ctxt_switches:") +
                      field(task.path() / "status", "nonvoluntary_ctxt_switches:");
    }
    return threads;
}

// One thread's share of a core, in percent, between two samples (0 if it is not there).
inline double threadShare(const std::map<std::string, ThreadSample>& before,
                          const std::map<std::string, ThreadSample>& after, const std::string& name, double wall) {
    const auto end = after.find(name);
    if (end == after.end()) return 0;
    const auto start = before.find(name);
    return 100 * (end->second.cpuSeconds - (start == before.end() ? 0 : start->second.cpuSeconds)) / wall;
}

// Prints each thread's share of a core and wake-ups per second between two samples.
inline void printThreads(const std::map<std::string, ThreadSample>& before,
                         const std::map<std::string, ThreadSample>& after, double wall) {
    for (const auto& [name, end] : after) {
        const auto start = before.find(name);
        const long switches = end.switches - (start == before.end() ? 0 : start->second.switches);
        std::printf("    thread %-16s %6.3f %% of a core, %7.1f switches/s\n", name.c_str(),
                    threadShare(before, after, name, wall), double(switches) / wall);
    }
}

inline pid_t spawnShell(const std::string& command, const fs::path& output) {
    return spawn({"/bin/sh", "-c", command}, output);
}

// A private session bus for the programs the bench starts (DBUS_SESSION_BUS_ADDRESS is
// pointed at it); its pid, to end it with SIGTERM, or -1 when it did not start.
inline pid_t startPrivateBus(const fs::path& dir) {
    std::ofstream(dir / "bus.conf") << "<busconfig><type>session</type><listen>unix:dir=" << dir.string()
                                    << "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow send_destination=\"*\" "
                                       "eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
    FILE* bus = ::popen(("dbus-daemon --config-file=" + (dir / "bus.conf").string() + " --fork --print-address=1 --print-pid=1").c_str(), "r");
    char line[1024] = {};
    std::string address;
    pid_t pid = -1;
    if (bus && std::fgets(line, sizeof line, bus)) address = line;
    if (bus && std::fgets(line, sizeof line, bus)) pid = std::atoi(line);
    if (bus) ::pclose(bus);
    while (!address.empty() && address.back() == '\n') address.pop_back();
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    return pid;
}

}  // namespace vell::bench
