#include "tests/support/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

extern char** environ;

namespace vell::test {

bool dieWithParent(pid_t parent) {
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return false;
    return ::getppid() == parent;  // it may have gone before the request took hold
}

pid_t spawnChild(const std::vector<std::string>& argv, const std::filesystem::path& output, char** envp, bool append) {
    if (argv.empty()) return -1;
    // Everything the child needs is made before the fork: after it, only plain system calls.
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const std::string out = output.string();
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (append ? O_APPEND : O_TRUNC);
    char** environment = envp ? envp : environ;
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    if (!dieWithParent(parent)) ::_exit(127);
    ::setpgid(0, 0);
    const int fd = ::open(out.c_str(), flags, 0600);
    if (fd >= 0) {
        ::dup2(fd, STDOUT_FILENO);
        ::dup2(fd, STDERR_FILENO);
    }
    ::execvpe(args[0], args.data(), environment);
    ::_exit(127);
}

pid_t spawnLogged(std::vector<std::string> args, const std::filesystem::path& output) {
    return spawnChild(args, output);
}

pid_t spawnShell(const std::string& command, const std::filesystem::path& output) {
    return spawnChild({"/bin/sh", "-c", command}, output);
}

void endProcess(pid_t& pid) {
    if (pid <= 0) return;
    ::kill(-pid, SIGKILL);
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    pid = -1;
}

std::string readAll(const std::filesystem::path& file) {
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace vell::test
