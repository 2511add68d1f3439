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

// -1 when the program could not be started.
pid_t spawnLogged(std::vector<std::string> args, const std::filesystem::path& output);
pid_t spawnShell(const std::string& command, const std::filesystem::path& output);
// SIGKILL and reap; pid becomes -1. Nothing when it is not positive.
void endProcess(pid_t& pid);
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
