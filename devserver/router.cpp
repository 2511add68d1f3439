#include "devserver/router.h"

#include <algorithm>
#include <charconv>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <thread>

namespace vell::devserver {

using nlohmann::json;

namespace {
constexpr size_t kJsonLimit = 1 << 20;

// What the request log reports as bytes received; routes that stream their body set it.
thread_local int64_t tlsBodyBytes = -1;

int portOf(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    if (address.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
    return -1;
}

std::mutex logMutex;
void logLine(const std::string& line) {
    std::lock_guard lock(logMutex);
    std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
}
}  // namespace

BodyStream Exchange::body() {
    touched_ = true;
    return [this](const BodySink& sink) {
        if (!reader_) return true;
        auto counted = [&](const char* data, size_t size) {
            bodyBytes_ += static_cast<int64_t>(size);
            return sink(data, size);
        };
        // httplib parses a multipart body itself and has no plain reader for it.
        if (req.is_multipart_form_data()) return (*reader_)([](const httplib::MultipartFormData&) { return true; }, counted);
        return (*reader_)(counted);
    };
}

bool Exchange::multipart(const httplib::MultipartContentHeader& header, const httplib::ContentReceiver& receiver) {
    touched_ = true;
    if (!reader_) return false;
    return (*reader_)(header, [&](const char* data, size_t size) {
        bodyBytes_ += static_cast<int64_t>(size);
        return receiver(data, size);
    });
}

std::optional<json> Exchange::json() {
    std::string text;
    bool tooLarge = false;
    body()([&](const char* data, size_t size) {
        if (text.size() + size > kJsonLimit) tooLarge = true;
        if (!tooLarge) text.append(data, size);
        return true;
    });
    if (!reader_) text = req.body;
    if (tooLarge || text.empty()) return std::nullopt;
    auto parsed = json::parse(text, nullptr, false);
    if (parsed.is_discarded()) return std::nullopt;
    return parsed;
}

void Exchange::drain() {
    if (!touched_) body()([](const char*, size_t) { return true; });
}

std::string Exchange::cookie(const std::string& name) const {
    for (size_t i = 0, n = req.get_header_value_count("Cookie"); i < n; ++i) {
        const std::string header = req.get_header_value("Cookie", i);
        size_t pos = 0;
        while (pos < header.size()) {
            size_t end = header.find(';', pos);
            if (end == std::string::npos) end = header.size();
            std::string pair = header.substr(pos, end - pos);
            pos = end + 1;
            size_t start = pair.find_first_not_of(' ');
            if (start == std::string::npos) continue;
            pair.erase(0, start);
            size_t eq = pair.find('=');
            if (eq != std::string::npos && pair.compare(0, eq, name) == 0 && eq == name.size()) {
                return pair.substr(eq + 1);
            }
        }
    }
    return {};
}

void Exchange::dropConnection() {
    // httplib does not hand the socket to handlers; find it by its two port numbers.
    dropped_ = true;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        int fd = -1;
        try {
            fd = std::stoi(entry.path().filename().string());
        } catch (...) {
            continue;
        }
        sockaddr_storage local{}, peer{};
        socklen_t localLength = sizeof local, peerLength = sizeof peer;
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0) continue;
        if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0) continue;
        if (portOf(local) == req.local_port && portOf(peer) == req.remote_port) {
            ::shutdown(fd, SHUT_RDWR);
            return;
        }
    }
}

void Exchange::reply(int status, const nlohmann::json& body) {
    res.status = status;
    res.set_content(body.dump(), "application/json");
}

void Exchange::fail(int status, const std::string& code, const nlohmann::json& extra) {
    nlohmann::json body = {{"ok", false}, {"error", code}};
    for (const auto& [key, value] : extra.items()) body[key] = value;
    reply(status, body);
}

Router::Router(httplib::Server& server, FaultTable& faults) : server_(server), faults_(faults) {}

void Router::run(Exchange& ex, const Handler& handler, bool appliesPartFaults) {
    const bool adminPath = ex.req.path.rfind("/admin/", 0) == 0;
    std::optional<Fault> fault = adminPath ? std::nullopt : faults_.take(ex.req.method, ex.req.path);
    bool handled = false;
    if (fault) {
        ex.res.set_header("X-Vell-Fault", fault->id);
        switch (fault->action) {
            case Fault::Action::Delay:
                std::this_thread::sleep_for(std::chrono::milliseconds(fault->delayMs));
                break;
            case Fault::Action::Status:
                ex.drain();
                ex.res.status = fault->status;
                for (const auto& [name, value] : fault->headers) ex.res.set_header(name, value);
                if (fault->body && fault->body->is_string()) {
                    ex.res.set_content(fault->body->get<std::string>(), "text/html");
                } else if (fault->body) {
                    ex.res.set_content(fault->body->dump(), "application/json");
                }
                handled = true;
                break;
            case Fault::Action::Conflict: {
                int64_t received = fault->bytesReceived;
                if (fault->offsetDelta) {
                    int64_t offset = 0;
                    const std::string text = ex.req.get_header_value("X-Upload-Offset");
                    std::from_chars(text.data(), text.data() + text.size(), offset);
                    received = std::max<int64_t>(0, offset + *fault->offsetDelta);
                }
                ex.drain();
                ex.fail(409, "offset_mismatch", {{"bytesReceived", received}});
                handled = true;
                break;
            }
            case Fault::Action::Stream:
                // Applied by the streaming route itself.
                ex.fault = fault;
                break;
            case Fault::Action::PartialAck:
            case Fault::Action::CloseAfterBytes:
                if (appliesPartFaults) {
                    ex.fault = fault;
                } else if (fault->action == Fault::Action::CloseAfterBytes) {
                    int64_t seen = 0;
                    const int64_t limit = fault->bytes;
                    ex.body()([&](const char*, size_t size) {
                        seen += static_cast<int64_t>(size);
                        return seen < limit;
                    });
                    ex.dropConnection();
                    handled = true;
                }
                break;
        }
    }
    if (!handled) {
        try {
            handler(ex);
        } catch (const std::exception& e) {
            logLine(std::string("error: ") + ex.req.method + " " + ex.req.path + ": " + e.what());
            ex.fail(500, "server_error");
        }
    }
    if (!ex.dropped()) ex.drain();
    tlsBodyBytes = ex.bodyTouched() ? ex.bodyBytes() : -1;
    if (ex.dropped()) {
        logLine(ex.req.method + " " + ex.req.path + " dropped in=" + std::to_string(ex.bodyBytes()));
    }
}

void Router::get(const std::string& pattern, Handler handler) {
    server_.Get(pattern, [this, handler](const httplib::Request& req, httplib::Response& res) {
        Exchange ex(req, res, nullptr);
        run(ex, handler, false);
    });
}

void Router::post(const std::string& pattern, Handler handler, bool appliesPartFaults) {
    server_.Post(pattern, [this, handler, appliesPartFaults](const httplib::Request& req, httplib::Response& res,
                                                             const httplib::ContentReader& reader) {
        Exchange ex(req, res, &reader);
        run(ex, handler, appliesPartFaults);
    });
}

void Router::put(const std::string& pattern, Handler handler, bool appliesPartFaults) {
    server_.Put(pattern, [this, handler, appliesPartFaults](const httplib::Request& req, httplib::Response& res,
                                                            const httplib::ContentReader& reader) {
        Exchange ex(req, res, &reader);
        run(ex, handler, appliesPartFaults);
    });
}

void Router::patch(const std::string& pattern, Handler handler) {
    server_.Patch(pattern, [this, handler](const httplib::Request& req, httplib::Response& res,
                                           const httplib::ContentReader& reader) {
        Exchange ex(req, res, &reader);
        run(ex, handler, false);
    });
}

void Router::del(const std::string& pattern, Handler handler) {
    server_.Delete(pattern, [this, handler](const httplib::Request& req, httplib::Response& res,
                                            const httplib::ContentReader& reader) {
        Exchange ex(req, res, &reader);
        run(ex, handler, false);
    });
}

void installRequestLog(httplib::Server& server) {
    server.set_logger([](const httplib::Request& req, const httplib::Response& res) {
        const int64_t in = tlsBodyBytes >= 0 ? tlsBodyBytes : static_cast<int64_t>(req.body.size());
        tlsBodyBytes = -1;
        logLine(req.method + " " + req.path + " " + std::to_string(res.status) + " in=" + std::to_string(in) +
                " out=" + std::to_string(res.body.size()));
    });
    // Unknown paths and the library's own rejections answer in the service's error format.
    server.set_error_handler(httplib::Server::HandlerWithResponse([](const httplib::Request&, httplib::Response& res) {
        if (!res.body.empty() || res.has_header("X-Vell-Fault")) return httplib::Server::HandlerResponse::Unhandled;
        const char* code = res.status == 404 ? "not_found" : res.status == 413 ? "too_large" : "bad_request";
        res.set_content(json{{"ok", false}, {"error", code}}.dump(), "application/json");
        return httplib::Server::HandlerResponse::Handled;
    }));
}

}  // namespace vell::devserver
