#pragma once
// Runs the built vell-devserver as a child process on a free port and talks to it with a
// plain HTTP client; the data directory outlives restarts of the process.
#include <sys/types.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "tests/support/devserver_process.h"

namespace vell::test {

// The devserver tests' view of a running service: a free port each start, the admin token
// "t" unless told otherwise, and extra command-line arguments.
class DevServerProcess {
public:
    explicit DevServerProcess(std::vector<std::string> extraArgs = {}, bool withAdminToken = true)
        : server_(DevServer::Options{0, {}, withAdminToken ? "t" : "", std::move(extraArgs)}) {}

    void start() { server_.start(); }
    void kill(int signal) { exitStatus_ = server_.stop(signal); }
    void restart() {
        kill(9);
        start();
    }
    int port() const { return server_.port(); }
    pid_t pid() const { return server_.pid(); }
    const std::filesystem::path& dataDir() const { return server_.dataDirectory(); }
    long peakRssKiB() const { return server_.peakRssKiB(); }
    // Exit status after kill(): WEXITSTATUS, or 128 + signal.
    int exitStatus() const { return exitStatus_; }

    httplib::Client client() const;

private:
    DevServer server_;
    int exitStatus_ = -1;
};

struct Reply {
    int status = 0;  // 0: no response (connection dropped)
    nlohmann::json body;
    httplib::Headers headers;
    std::string cookie(const std::string& name) const;  // from Set-Cookie
};

// One signed-in (or not) client of the service: keeps the session cookie like a browser.
class Api {
public:
    explicit Api(const DevServerProcess& server) : server_(server) {}

    Reply login(const std::string& email, const std::string& password);
    Reply post(const std::string& path, const nlohmann::json& body, const httplib::Headers& headers = {});
    Reply postEmpty(const std::string& path);
    Reply patch(const std::string& path, const nlohmann::json& body);
    Reply get(const std::string& path);
    Reply put(const std::string& path, const std::string& body, const httplib::Headers& headers);
    Reply del(const std::string& path);
    Reply admin(const std::string& method, const std::string& path, const nlohmann::json& body = nullptr,
                const std::string& token = "t");

    // Resumable upload helpers.
    Reply start(const std::string& key, int64_t totalBytes, const std::string& filename = "rec.aac");
    Reply part(const std::string& uploadId, int64_t offset, const std::string& bytes);

    std::map<std::string, std::string> cookies;

private:
    httplib::Headers withCookies(httplib::Headers headers) const;
    Reply keep(const httplib::Result& result);
    const DevServerProcess& server_;
};

std::string randomBytes(size_t size, unsigned seed);
std::string sha256Hex(const std::string& data);

}  // namespace vell::test
