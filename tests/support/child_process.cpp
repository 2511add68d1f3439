#include "tests/support/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

extern char** environ;

namespace vell::test {

namespace {
pid_t spawnWith(const char* program, std::vector<char*> argv, const std::filesystem::path& output, bool searchPath) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int failed = searchPath ? posix_spawnp(&pid, program, &actions, nullptr, argv.data(), environ)
                                  : posix_spawn(&pid, program, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return failed ? -1 : pid;
}
}  // namespace

pid_t spawnLogged(std::vector<std::string> args, const std::filesystem::path& output) {
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    return argv.empty() ? -1 : spawnWith(argv[0], argv, output, true);
}

pid_t spawnShell(const std::string& command, const std::filesystem::path& output) {
    std::string shell = "/bin/sh", flag = "-c", text = command;
    return spawnWith("/bin/sh", {shell.data(), flag.data(), text.data()}, output, false);
}

void endProcess(pid_t& pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    pid = -1;
}

std::string readAll(const std::filesystem::path& file) {
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace vell::test
