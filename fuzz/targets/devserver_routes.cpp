// The reference service's routes behind the HTTP layer: the input is raw HTTP/1.1 (one or
// more requests on one connection), parsed by cpp-httplib exactly as a socket would deliver
// it and dispatched to the same router, fault table and handlers as vell-devserver's. State
// (accounts, uploads) lives in a scratch folder for the whole run; faults are cleared after
// every input so a fuzzed admin request cannot make the next input sleep.
#include <cstring>
#include <memory>

#include <httplib.h>

#include "devserver/agent_requests.h"
#include "devserver/auth.h"
#include "devserver/faults.h"
#include "devserver/recordings.h"
#include "devserver/router.h"
#include "devserver/routes.h"
#include "devserver/store.h"
#include "devserver/uploads.h"
#include "fuzz_support.h"

namespace {

using namespace vell::devserver;

// A connection whose bytes are the input; what the server writes back is dropped.
class MemoryStream final : public httplib::Stream {
public:
    MemoryStream(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool is_readable() const override { return true; }
    bool is_writable() const override { return true; }
    ssize_t read(char* ptr, std::size_t size) override {
        std::size_t n = std::min(size, size_ - offset_);
        std::memcpy(ptr, data_ + offset_, n);
        offset_ += n;
        return static_cast<ssize_t>(n);
    }
    ssize_t write(const char*, std::size_t size) override { return static_cast<ssize_t>(size); }
    void get_remote_ip_and_port(std::string& ip, int& port) const override { ip = "127.0.0.1", port = 40000; }
    void get_local_ip_and_port(std::string& ip, int& port) const override { ip = "127.0.0.1", port = 8787; }
    socket_t socket() const override { return INVALID_SOCKET; }
    bool exhausted() const { return offset_ >= size_; }

private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t offset_ = 0;
};

// Opens the one request-processing entry point cpp-httplib keeps for subclasses.
class InMemoryServer final : public httplib::Server {
public:
    bool handle(MemoryStream& stream, bool& closed) {
        return process_request(stream, false, closed, [](httplib::Request&) {});
    }
};

struct Service {
    Service()
        : store(vell::fuzz::scratch() / "devserver"),
          auth(store),
          uploads(store),
          requests(store),
          live(store),
          services{store, auth, uploads, requests, live, faults, "fuzz-admin"},
          router(http, faults) {
        std::error_code error;
        store.load(error);
        auth.upsertUser(NewUser{"demo@vell.local", "vell-demo", {}, {}, "user"});
        addAuthRoutes(router, services);
        addUploadRoutes(router, services);
        addAgentRoutes(router, services);
        addAdminRoutes(router, services);
    }
    Store store;
    Auth auth;
    Uploads uploads;
    AgentRequests requests;
    LiveChunks live;
    FaultTable faults;
    Services services;
    InMemoryServer http;
    Router router;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Service service;
    MemoryStream stream(data, size);
    bool closed = false;
    for (int i = 0; i < 4 && !stream.exhausted() && !closed; ++i)
        if (!service.http.handle(stream, closed)) break;
    service.faults.clear();
    return 0;
}
