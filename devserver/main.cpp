// vell-devserver: the local reference service for development, tests and the demo.
#include <CLI/CLI.hpp>
#include <malloc.h>
#include <signal.h>

#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <cstdio>
#include <thread>

#include "base/process_start.h"
#include "devserver/crypto.h"
#include "devserver/server.h"

using namespace vell::devserver;

namespace {
std::vector<std::string> split(const std::string& text, char separator, size_t maxParts) {
    std::vector<std::string> parts;
    size_t pos = 0;
    while (parts.size() + 1 < maxParts) {
        size_t next = text.find(separator, pos);
        if (next == std::string::npos) break;
        parts.push_back(text.substr(pos, next - pos));
        pos = next + 1;
    }
    parts.push_back(text.substr(pos));
    return parts;
}

bool parseInt(const std::string& text, int64_t& out) {
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return ec == std::errc() && end == text.data() + text.size();
}
}  // namespace

int main(int argc, char** argv) {
    vell::process::start();
    CLI::App app{"Vell reference service: the web service's endpoints on 127.0.0.1, with durable state"};
    Config config;
    std::string dataDir;
    std::vector<std::string> users, backupCodes, requests;
    app.add_option("--port", config.port, "TCP port on 127.0.0.1 (0 picks a free one)")->default_val(8787);
    app.add_option("--data", dataDir, "Directory for the state, uploads and recordings")->required();
    app.add_option("--user", users, "Account EMAIL:PASSWORD[:TOTP_BASE32_SECRET] (repeatable; without any, "
                                    "demo@vell.local / vell-demo)");
    app.add_option("--backup-codes", backupCodes, "One-time backup codes EMAIL:CODE[,CODE...] of a --user account");
    app.add_option("--admin-token", config.adminToken, "Enables the /admin API for requests with this X-Admin-Token");
    app.add_option("--enqueue-request", requests, "Pending agent request EMAIL:FROM_MS:TO_MS (repeatable)");
    CLI11_PARSE(app, argc, argv);
    config.dataDir = std::filesystem::absolute(dataDir);

    for (const auto& text : users) {
        auto parts = split(text, ':', 3);
        if (parts.size() < 2) {
            std::fprintf(stderr, "vell-devserver: --user wants EMAIL:PASSWORD[:TOTP_SECRET], got %s\n", text.c_str());
            return 2;
        }
        config.users.push_back(NewUser{parts[0], parts[1], parts.size() > 2 ? parts[2] : "", {}, "user"});
    }
    for (const auto& text : backupCodes) {
        auto parts = split(text, ':', 2);
        auto user = std::find_if(config.users.begin(), config.users.end(),
                                 [&](const NewUser& u) { return parts.size() == 2 && u.email == parts[0]; });
        if (user == config.users.end()) {
            std::fprintf(stderr, "vell-devserver: --backup-codes must name a --user account: %s\n", text.c_str());
            return 2;
        }
        for (const auto& code : split(parts[1], ',', SIZE_MAX)) {
            if (!code.empty()) user->backupCodes.push_back(code);
        }
    }
    for (const auto& text : requests) {
        auto parts = split(text, ':', 3);
        Config::Request request;
        if (parts.size() != 3 || !parseInt(parts[1], request.fromMs) || !parseInt(parts[2], request.toMs)) {
            std::fprintf(stderr, "vell-devserver: --enqueue-request wants EMAIL:FROM_MS:TO_MS, got %s\n", text.c_str());
            return 2;
        }
        request.email = parts[0];
        config.requests.push_back(request);
    }

    // Every request streams through 1 MiB buffers on whichever worker thread takes it. A fixed
    // mmap threshold makes each buffer go back to the system when freed, instead of staying
    // in that thread's malloc arena (glibc raises the threshold after the first free).
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);

    if (!crypto::initialize()) {
        std::fprintf(stderr, "vell-devserver: libsodium failed to initialise\n");
        return 1;
    }
    // Signals are taken by one thread with sigwait, so every other thread keeps them
    // blocked. SIGUSR2 only wakes that thread when the server ended by itself.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    DevServer server(config);
    std::string message;
    if (!server.prepare(message)) {
        std::fprintf(stderr, "vell-devserver: %s\n", message.c_str());
        return 1;
    }
    const int port = server.bind();
    if (port <= 0) {
        std::fprintf(stderr, "vell-devserver: cannot listen on 127.0.0.1:%d\n", config.port);
        return 1;
    }
    // Told to stop, the server finishes its requests and its recognition job; whatever is
    // still under way after kStopSeconds (a long recognition, a client that keeps a request
    // open) is abandoned: every file it writes is replaced atomically, so nothing is torn.
    constexpr auto kStopSeconds = std::chrono::seconds(4);
    std::mutex finishing;
    std::condition_variable finishedChanged;
    bool finished = false;
    std::thread signals([&] {
        int signal = 0;
        sigwait(&stopSignals, &signal);
        if (signal == SIGUSR2) return;
        std::fprintf(stderr, "vell-devserver: stopping on signal %d\n", signal);
        server.stop();
        std::unique_lock lock(finishing);
        if (!finishedChanged.wait_for(lock, kStopSeconds, [&] { return finished; })) {
            std::fprintf(stderr, "vell-devserver: work still under way after %lld s abandoned\n",
                         static_cast<long long>(kStopSeconds.count()));
            std::fflush(stderr);
            std::_Exit(0);
        }
    });
    std::printf("vell-devserver listening on http://127.0.0.1:%d/\n", port);
    std::fflush(stdout);
    const bool served = server.serve();
    server.finish();
    {
        std::lock_guard lock(finishing);
        finished = true;
    }
    finishedChanged.notify_all();
    pthread_kill(signals.native_handle(), SIGUSR2);
    signals.join();
    return served ? 0 : 1;
}
