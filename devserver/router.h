#pragma once
// The HTTP side shared by every route: one Exchange per request (its body as a stream or as
// JSON, the fault that applies to it, JSON answers) and a Router that registers handlers
// behind the fault table and the request log.
#include <functional>
#include <optional>
#include <ostream>
#include <string>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "devserver/body.h"
#include "devserver/faults.h"

namespace vell::devserver {

class Exchange {
public:
    Exchange(const httplib::Request& req, httplib::Response& res, const httplib::ContentReader* reader)
        : req(req), res(res), reader_(reader) {}

    const httplib::Request& req;
    httplib::Response& res;
    // A partialAck or closeAfterBytes rule for a route that applies it itself.
    std::optional<Fault> fault;

    // The body as a stream (once). GET requests have none.
    BodyStream body();
    // Streams a multipart/form-data body.
    bool multipart(const httplib::MultipartContentHeader& header, const httplib::ContentReceiver& receiver);
    // The body parsed as JSON (at most 1 MiB); nothing when it is empty or not JSON.
    std::optional<nlohmann::json> json();
    // Reads and discards whatever is left of the body.
    void drain();
    bool bodyTouched() const { return touched_; }
    int64_t bodyBytes() const { return bodyBytes_; }

    // The value of a cookie of the request, empty when absent.
    std::string cookie(const std::string& name) const;
    // Answers after the request was read: the connection is closed without a response.
    void dropConnection();
    bool dropped() const { return dropped_; }

    void reply(int status, const nlohmann::json& body);
    // {"ok": false, "error": code} plus the fields of `extra`.
    void fail(int status, const std::string& code, const nlohmann::json& extra = nlohmann::json::object());

private:
    const httplib::ContentReader* reader_;
    bool touched_ = false;
    bool dropped_ = false;
    int64_t bodyBytes_ = 0;
};

using Handler = std::function<void(Exchange&)>;

class Router {
public:
    Router(httplib::Server& server, FaultTable& faults);

    // Routes that take a body get it as a stream; `appliesPartFaults` marks the route that
    // applies partialAck and closeAfterBytes itself (elsewhere closeAfterBytes reads that many
    // bytes and drops the connection, and partialAck does nothing).
    void get(const std::string& pattern, Handler handler);
    void post(const std::string& pattern, Handler handler, bool appliesPartFaults = false);
    void put(const std::string& pattern, Handler handler, bool appliesPartFaults = false);
    void patch(const std::string& pattern, Handler handler);
    void del(const std::string& pattern, Handler handler);

private:
    void run(Exchange& ex, const Handler& handler, bool appliesPartFaults);

    httplib::Server& server_;
    FaultTable& faults_;
};

// Writes one line per request to standard error: method, path, status, bytes in and out.
void installRequestLog(httplib::Server& server);

}  // namespace vell::devserver
