#include "bench/net/shaped_link.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

namespace vell::bench {

namespace {

// iproute2 lives in sbin, which a root shell's PATH may lack.
std::string findTool(const std::string& name) {
    std::string path = (std::getenv("PATH") ? std::getenv("PATH") : "") + std::string(":/usr/sbin:/sbin");
    std::stringstream dirs(path);
    for (std::string dir; std::getline(dirs, dir, ':');) {
        if (dir.empty()) continue;
        std::string candidate = dir + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return {};
}

// Runs a tool in the calling thread's namespace for at most 10 s; empty on success,
// else what it said.
std::string run(const std::vector<std::string>& argv) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return std::strerror(errno);
    pid_t pid = ::fork();
    if (pid < 0) {
        ::close(out[0]);
        ::close(out[1]);
        return std::strerror(errno);
    }
    if (pid == 0) {
        ::dup2(out[1], 1);
        ::dup2(out[1], 2);
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        ::execv(args[0], args.data());
        _exit(127);
    }
    ::close(out[1]);
    std::string said;
    for (int waited = 0; waited < 100; ++waited) {
        pollfd p{out[0], POLLIN, 0};
        if (::poll(&p, 1, 100) == 0) continue;
        char buf[512];
        ssize_t n = ::read(out[0], buf, sizeof buf);
        if (n <= 0) break;
        said.append(buf, static_cast<size_t>(n));
    }
    ::close(out[0]);
    int status = 0;
    pid_t done = 0;
    for (int waited = 0; waited < 100 && (done = ::waitpid(pid, &status, WNOHANG)) == 0; ++waited) ::usleep(20'000);
    if (done == 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        return argv[0] + " did not finish";
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {};
    while (!said.empty() && said.back() == '\n') said.pop_back();
    std::string command;
    for (const auto& a : argv) command += (command.empty() ? "" : " ") + a;
    return command + ": " + (said.empty() ? "failed" : said);
}

}  // namespace

std::unique_ptr<ShapedLink> ShapedLink::open(uint16_t upstreamPort, const LinkShape& shape, std::string& whyNot) {
    if (::geteuid() != 0) {
        whyNot = "needs root (a network namespace and tc)";
        return nullptr;
    }
    const std::string ip = findTool("ip"), tc = findTool("tc");
    if (ip.empty() || tc.empty()) {
        whyNot = "`ip` or `tc` not found (Debian package iproute2)";
        return nullptr;
    }
    std::unique_ptr<ShapedLink> link(new ShapedLink);
    link->home_ = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (link->home_ < 0) {
        whyNot = std::string("cannot open this thread's network namespace: ") + std::strerror(errno);
        return nullptr;
    }
    if (::unshare(CLONE_NEWNET) != 0) {
        whyNot = std::string("cannot make a network namespace: ") + std::strerror(errno);
        return nullptr;  // the destructor returns to home_ (a no-op here)
    }
    // An Ethernet-sized MTU, as on the links users have; the bucket holds one millisecond
    // of the rate and its queue one round trip, about what a home router buffers.
    const double bytesPerSecond = shape.megabitsPerSecond * 1e6 / 8;
    const long burst = std::max(3000L, static_cast<long>(bytesPerSecond / 1000));
    const long latencyMs = std::max<long>(20, std::chrono::duration_cast<std::chrono::milliseconds>(shape.roundTrip).count());
    char rate[32];
    std::snprintf(rate, sizeof rate, "%gmbit", shape.megabitsPerSecond);
    for (const auto& argv : std::vector<std::vector<std::string>>{
             {ip, "link", "set", "dev", "lo", "mtu", "1500", "up"},
             {tc, "qdisc", "add", "dev", "lo", "root", "tbf", "rate", rate, "burst", std::to_string(burst), "latency",
              std::to_string(latencyMs) + "ms"}}) {
        if (std::string said = run(argv); !said.empty()) {
            whyNot = said;
            return nullptr;
        }
    }

    int listening = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listening < 0 || ::bind(listening, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listening, 16) != 0 || ::getsockname(listening, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        whyNot = std::string("cannot listen in the namespace: ") + std::strerror(errno);
        if (listening >= 0) ::close(listening);
        return nullptr;
    }
    link->url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
    link->proxy_ = std::make_unique<DelayProxy>(listening, link->home_, upstreamPort, shape.roundTrip);
    if (std::string failed = link->proxy_->failure(); !failed.empty()) {
        whyNot = "delay proxy: " + failed;
        return nullptr;
    }
    return link;
}

ShapedLink::~ShapedLink() {
    proxy_.reset();
    if (home_ >= 0) {
        // Back home; the namespace, its qdisc and sockets vanish with the last reference.
        if (::setns(home_, CLONE_NEWNET) != 0) std::perror("setns back to the original network namespace");
        ::close(home_);
    }
}

}  // namespace vell::bench
