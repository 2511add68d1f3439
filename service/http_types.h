#pragma once
// Plain values exchanged with the HTTP layer, so that the service code never sees the
// transfer library.
#include <atomic>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vell::http {

using Headers = std::vector<std::pair<std::string, std::string>>;

struct Request {
    std::string method = "GET";
    std::string url;
    Headers headers;
    // The body: bytes in memory, or a file streamed from disk (never both).
    std::optional<std::string> body;
    std::optional<std::filesystem::path> bodyFile;
    // Abandoned when no byte moved for this long (connecting, sending or waiting for the
    // answer): a slow link that keeps moving is never cut off by it.
    double idleSeconds = 60;
    // Abandoned when the whole exchange takes longer than this.
    double maxSeconds = 600;
    // Set from another thread to abandon the transfer.
    const std::atomic<bool>* cancel = nullptr;
    // Bytes of the body sent so far, told from the transfer's thread as they go.
    std::function<void(long long sent)> onUpload;
    // When set, the body of a 2xx answer is handed over piece by piece as it arrives, on
    // the transfer's thread, instead of being collected (other answers are still collected
    // for the error). Returning false abandons the transfer.
    std::function<bool(const char* data, size_t size)> onBodyChunk;
};

struct Response {
    long status = 0;  // 0: the peer answered with something that was not HTTP
    std::string body;
};

struct TransportError {
    int code = 0;  // the transfer library's error number
    std::string description;
    bool noConnection = false;  // the host could not be resolved or reached
};

// One cookie of the jar, with the properties a snapshot keeps.
struct Cookie {
    std::string name;
    std::string value;
    std::string domain;  // host name; a leading "." means subdomains match too
    std::string path = "/";
    bool secure = false;
    bool httpOnly = false;
    std::optional<long long> expires;  // seconds since 1970; absent for a session cookie
    bool operator==(const Cookie&) const = default;
};

}  // namespace vell::http
