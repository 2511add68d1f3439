#include "tests/support/devserver_process.h"

#include <fcntl.h>
#include <cstdlib>
#include <openssl/evp.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "platform/http/curl_session.h"
#include "tests/support/child_process.h"
#include "tests/support/temp_home.h"

namespace vell::test {

namespace fs = std::filesystem;

DevServer::DevServer(Options options) : options_(std::move(options)) {
    std::string pattern = (fs::temp_directory_path() / "vell-devserver-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    data_ = fs::path(pattern) / "data";
    logFile_ = fs::path(pattern) / "server.log";
    fs::create_directories(data_);
    port_ = options_.port;
    start();
}

DevServer::~DevServer() {
    if (const char* current = std::getenv("VELL_API_BASE_URL"); current && current == url_) ::unsetenv("VELL_API_BASE_URL");
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        int status = 0;
        for (int i = 0; i < 100 && ::waitpid(pid_, &status, WNOHANG) == 0; ++i) ::usleep(20'000);
        if (::waitpid(pid_, &status, WNOHANG) == 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
        }
    }
    std::error_code ec;
    fs::remove_all(data_.parent_path(), ec);
}

void DevServer::start() {
    if (pid_ > 0) return;
    std::vector<std::string> args = {binaryPath("vell-devserver").string(), "--port", std::to_string(port_), "--data",
                                     data_.string()};
    if (!options_.adminToken.empty()) args.insert(args.end(), {"--admin-token", options_.adminToken});
    for (const auto& user : options_.users) {
        args.push_back("--user");
        args.push_back(user);
    }
    args.insert(args.end(), options_.extraArgs.begin(), options_.extraArgs.end());
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    const pid_t parent = ::getpid();
    pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        if (!dieWithParent(parent)) std::_Exit(127);
        ::dup2(out[1], STDOUT_FILENO);
        int log = ::open(logFile_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (log >= 0) ::dup2(log, STDERR_FILENO);
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        std::_Exit(127);
    }
    ::close(out[1]);
    pid_ = pid;
    std::string seen;
    std::regex listening(R"(vell-devserver listening on (http://127\.0\.0\.1:(\d+)/))");
    std::smatch match;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!std::regex_search(seen, match, listening)) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p{out[0], POLLIN, 0};
        if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
        char buffer[512];
        ssize_t n = ::read(out[0], buffer, sizeof buffer);
        if (n <= 0) break;
        seen.append(buffer, static_cast<size_t>(n));
    }
    ::close(out[0]);
    if (match.empty()) {
        kill();
        throw std::runtime_error("vell-devserver did not start; stdout: " + seen + "\nlog:\n" + log());
    }
    url_ = match[1];
    port_ = std::stoi(match[2]);
    // The programs and clients this test starts talk to this server, whatever port it got.
    ::setenv("VELL_API_BASE_URL", url_.c_str(), 1);
}

void DevServer::kill() { stop(SIGKILL); }

int DevServer::stop(int signal) {
    if (pid_ <= 0) return -1;
    ::kill(pid_, signal);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

long DevServer::peakRssKiB() const {
    std::ifstream in("/proc/" + std::to_string(pid_) + "/status");
    std::string key;
    while (in >> key) {
        if (key == "VmHWM:") {
            long value = 0;
            in >> value;
            return value;
        }
    }
    return -1;
}

nlohmann::json DevServer::admin(const std::string& method, const std::string& path,
                                const std::optional<nlohmann::json>& body) const {
    static http::CurlSession session;
    http::Request request;
    request.method = method;
    request.url = url_ + (path.front() == '/' ? path.substr(1) : path);
    request.headers = {{"X-Admin-Token", options_.adminToken}, {"Accept", "application/json"}};
    if (body) {
        request.body = body->dump();
        request.headers.emplace_back("Content-Type", "application/json");
    }
    auto response = session.perform(request);
    if (!response) throw std::runtime_error("admin " + method + " " + path + ": " + response.error().description);
    if (response->status >= 400) {
        throw std::runtime_error("admin " + method + " " + path + ": " + std::to_string(response->status) + " " + response->body);
    }
    if (response->body.empty()) return nullptr;
    return nlohmann::json::parse(response->body, nullptr, false);
}

std::string DevServer::addFault(const nlohmann::json& fault) const {
    auto reply = admin("POST", "admin/faults", fault);
    return reply.is_object() && reply.contains("id") ? reply["id"].dump() : "";
}

void DevServer::clearFaults() const { admin("DELETE", "admin/faults"); }
nlohmann::json DevServer::uploads() const { return admin("GET", "admin/uploads"); }
nlohmann::json DevServer::recordings() const { return admin("GET", "admin/recordings"); }
void DevServer::expireSessions(const std::string& email) const {
    admin("POST", "admin/sessions/expire", nlohmann::json{{"email", email}});
}

std::string DevServer::log() const {
    std::ifstream in(logFile_);
    std::stringstream s;
    s << in.rdbuf();
    std::string text = s.str();
    return text.size() > 4000 ? text.substr(text.size() - 4000) : text;
}

bool devServerBuilt() {
    std::error_code ec;
    return fs::exists(binaryPath("vell-devserver"), ec);
}

std::string sha256File(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestInit_ex(ctx, EVP_sha256(), nullptr);
    std::array<char, 1 << 16> buffer{};
    while (in) {
        in.read(buffer.data(), buffer.size());
        if (in.gcount() > 0) EVP_DigestUpdate(ctx, buffer.data(), static_cast<size_t>(in.gcount()));
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(ctx, digest, &length);
    EVP_MD_CTX_free(ctx);
    std::string hex;
    char pair[3];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(pair, sizeof pair, "%02x", digest[i]);
        hex += pair;
    }
    return hex;
}

}  // namespace vell::test
