#pragma once
// Injected faults for tests: a rule matches requests by method and a substring of the
// path and applies to a given number of them.
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace vell::devserver {

struct Fault {
    enum class Action { Status, PartialAck, CloseAfterBytes, Delay, Conflict, Stream };
    std::string id;
    std::string method = "*";  // or GET, POST, PUT, PATCH, DELETE
    std::string path;  // substring of the request path
    Action action = Action::Status;
    int status = 500;
    std::optional<nlohmann::json> body;  // an object, or a string sent as text/html
    std::map<std::string, std::string> headers;
    int64_t bytes = 0;
    int64_t delayMs = 0;
    int64_t bytesReceived = 0;
    // Conflict: answer the part's own X-Upload-Offset plus this instead of bytesReceived (a
    // service that creeps on a byte at a time).
    std::optional<int64_t> offsetDelta;
    int times = 1;
    // Stream: how a streamed answer misbehaves ("error", "cut", "draftsOnly", "malformed",
    // "slow" with delayMs between lines, "hold" until the admin API releases it).
    std::string mode;
};

// Builds a fault from the admin API's JSON; nothing with `error` set when it is invalid.
std::optional<Fault> parseFault(const nlohmann::json& json, std::string& error);

class FaultTable {
public:
    std::string add(Fault fault);
    void clear();
    // The first rule matching the request, counted as used (a rule is gone after its
    // last use).
    std::optional<Fault> take(const std::string& method, const std::string& path);
    size_t size() const;

private:
    mutable std::mutex mutex_;
    std::vector<Fault> rules_;
    int nextId_ = 1;
};

}  // namespace vell::devserver
