#pragma once
// Programs a test starts and waits for: a child whose standard output and error go to a
// file, a shell command likewise, the file read back, and a bounded wait for a condition.
#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace vell::test {

// Every program a test starts dies with the test process (SIGKILL when it goes, however it
// goes) and leads a process group of its own, so ending it ends what it started too.
// The marker every program of the suite carries in its environment (the build folder), by
// which the suite's last test finds any that outlived their test.
inline constexpr const char* kSuiteMarker = "VELL_TEST_SUITE";

// argv[0] searched on PATH; standard output and error to `output` (appended when asked),
// the given environment or the test's own. -1 when the program could not be started.
pid_t spawnChild(const std::vector<std::string>& argv, const std::filesystem::path& output, char** envp = nullptr,
                 bool append = false);
pid_t spawnLogged(std::vector<std::string> args, const std::filesystem::path& output);
pid_t spawnShell(const std::string& command, const std::filesystem::path& output);
// SIGKILL to its process group and reap; pid becomes -1. Nothing when it is not positive.
void endProcess(pid_t& pid);
// In a child between fork and exec: dies with the test process; false when that already went.
bool dieWithParent(pid_t parent);
std::string readAll(const std::filesystem::path& file);

// Polls pred every 100 ms until it holds or the limit passes; its last answer.
template <class Pred>
bool eventually(Pred pred, std::chrono::milliseconds limit = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return pred();
}

}  // namespace vell::test
