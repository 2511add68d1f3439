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

namespace vell::test {

class DevServerProcess {
public:
    // Extra arguments go after --port 0 --data DIR [--admin-token t].
    explicit DevServerProcess(std::vector<std::string> extraArgs = {}, bool withAdminToken = true);
    ~DevServerProcess();

    void start();
    void kill(int signal);  // and wait for the process
    void restart() {
        kill(9);
        start();
    }
    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    const std::filesystem::path& dataDir() const { return dataDir_; }
    // Peak resident memory of the process, from VmHWM in /proc/<pid>/status.
    long peakRssKiB() const;
    // Exit status after kill(): WEXITSTATUS, or 128 + signal.
    int exitStatus() const { return exitStatus_; }

    httplib::Client client() const;

private:
    std::vector<std::string> args_;
    bool withAdminToken_ = true;
    std::filesystem::path root_, dataDir_;
    pid_t pid_ = -1;
    int port_ = 0;
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
