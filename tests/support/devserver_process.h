#pragma once
// A running vell-devserver for one test: started on a free port, with a private data
// folder and the admin API. While it runs, VELL_API_BASE_URL points at it, so the vell
// programs the test starts (and clients made with the default URL) talk to it.
#include <sys/types.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace vell::test {

class DevServer {
public:
    struct Options {
        int port = 0;  // 0: a free port chosen by the server
        std::vector<std::string> users;  // "EMAIL:PASSWORD[:TOTP]"; none: the demo account
        std::string adminToken = "t";    // empty: the admin API stays off
        std::vector<std::string> extraArgs;  // further command-line arguments
    };

    // Starts the server and waits for its "listening on" line; throws when it does not come.
    DevServer() : DevServer(Options{}) {}
    explicit DevServer(Options options);
    ~DevServer();
    DevServer(const DevServer&) = delete;
    DevServer& operator=(const DevServer&) = delete;

    const std::string& url() const { return url_; }  // "http://127.0.0.1:<port>/"
    int port() const { return port_; }
    const std::filesystem::path& dataDirectory() const { return data_; }

    // SIGKILL, as a crash would; start() brings it back on the same port and data.
    void kill();
    void start();
    bool running() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    // Sends the signal and waits: the exit status, or 128 + signal when it was killed.
    int stop(int signal);
    // Peak resident memory of the running process (VmHWM), in KiB; -1 when unknown.
    long peakRssKiB() const;

    // The admin API (X-Admin-Token). Throws on a transport failure or a status >= 400.
    nlohmann::json admin(const std::string& method, const std::string& path,
                         const std::optional<nlohmann::json>& body = std::nullopt) const;
    std::string addFault(const nlohmann::json& fault) const;
    void clearFaults() const;
    nlohmann::json uploads() const;
    nlohmann::json recordings() const;
    void expireSessions(const std::string& email) const;

    // The server's request log so far (for failure messages).
    std::string log() const;

private:
    Options options_;
    std::filesystem::path data_;
    std::filesystem::path logFile_;
    std::string url_;
    int port_ = 0;
    pid_t pid_ = -1;
};

// Whether the reference service was built (tests that need it skip visibly otherwise).
bool devServerBuilt();
#define VELL_REQUIRE_DEVSERVER()                                                   \
    do {                                                                           \
        if (!::vell::test::devServerBuilt()) GTEST_SKIP() << "vell-devserver is not built"; \
    } while (0)

// Hex SHA-256 of a file (what /admin/recordings reports).
std::string sha256File(const std::filesystem::path& file);

}  // namespace vell::test
