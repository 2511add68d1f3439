#include "devserver/faults.h"

namespace vell::devserver {

using nlohmann::json;

namespace {
std::optional<Fault::Action> actionNamed(const std::string& name) {
    if (name == "status") return Fault::Action::Status;
    if (name == "partialAck") return Fault::Action::PartialAck;
    if (name == "closeAfterBytes") return Fault::Action::CloseAfterBytes;
    if (name == "delay") return Fault::Action::Delay;
    if (name == "conflict") return Fault::Action::Conflict;
    if (name == "stream") return Fault::Action::Stream;
    return std::nullopt;
}

bool validMethod(const std::string& m) {
    return m == "*" || m == "GET" || m == "POST" || m == "PUT" || m == "PATCH" || m == "DELETE";
}
}  // namespace

std::optional<Fault> parseFault(const json& j, std::string& error) {
    if (!j.is_object()) {
        error = "body must be an object";
        return std::nullopt;
    }
    try {
        Fault f;
        f.method = j.value("method", "*");
        f.path = j.value("path", "");
        auto action = actionNamed(j.value("action", ""));
        if (!action) {
            error = "action must be status, partialAck, closeAfterBytes, delay, conflict or stream";
            return std::nullopt;
        }
        if (!validMethod(f.method)) {
            error = "method must be GET, POST, PUT, PATCH, DELETE or *";
            return std::nullopt;
        }
        f.action = *action;
        f.status = j.value("status", 500);
        if (j.contains("body") && !j["body"].is_null()) {
            if (!j["body"].is_object() && !j["body"].is_string()) {
                error = "body must be an object or a string";
                return std::nullopt;
            }
            f.body = j["body"];
        }
        if (j.contains("headers")) {
            for (const auto& [name, value] : j.at("headers").items()) f.headers[name] = value.get<std::string>();
        }
        f.bytes = j.value("bytes", int64_t{0});
        f.delayMs = j.value("delayMs", int64_t{0});
        f.bytesReceived = j.value("bytesReceived", int64_t{0});
        if (j.contains("offsetDelta")) f.offsetDelta = j.at("offsetDelta").get<int64_t>();
        f.times = j.value("times", 1);
        f.mode = j.value("mode", "");
        if (f.action == Fault::Action::Stream && f.mode != "error" && f.mode != "cut" && f.mode != "draftsOnly" &&
            f.mode != "malformed" && f.mode != "slow" && f.mode != "hold") {
            error = "mode must be error, cut, draftsOnly, malformed, slow or hold";
            return std::nullopt;
        }
        if (f.status < 100 || f.status > 599 || f.bytes < 0 || f.delayMs < 0 || f.bytesReceived < 0 || f.times < 1) {
            error = "status, bytes, delayMs, bytesReceived or times out of range";
            return std::nullopt;
        }
        return f;
    } catch (const json::exception&) {
        error = "a field has the wrong type";
        return std::nullopt;
    }
}

std::string FaultTable::add(Fault fault) {
    std::lock_guard lock(mutex_);
    fault.id = "flt_" + std::to_string(nextId_++);
    rules_.push_back(fault);
    return fault.id;
}

void FaultTable::clear() {
    std::lock_guard lock(mutex_);
    rules_.clear();
}

std::optional<Fault> FaultTable::take(const std::string& method, const std::string& path) {
    std::lock_guard lock(mutex_);
    for (auto it = rules_.begin(); it != rules_.end(); ++it) {
        if ((it->method == "*" || it->method == method) && path.find(it->path) != std::string::npos) {
            Fault used = *it;
            if (--it->times <= 0) rules_.erase(it);
            return used;
        }
    }
    return std::nullopt;
}

size_t FaultTable::size() const {
    std::lock_guard lock(mutex_);
    return rules_.size();
}

}  // namespace vell::devserver
