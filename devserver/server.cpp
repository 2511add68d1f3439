#include "devserver/server.h"

#include <httplib.h>
#include <sys/socket.h>

#include <cstdio>

#include "devserver/agent_requests.h"
#include "devserver/crypto.h"
#include "devserver/faults.h"
#include "devserver/recordings.h"
#include "devserver/router.h"
#include "devserver/routes.h"
#include "devserver/uploads.h"

namespace vell::devserver {

namespace {
// Enough workers for a client that keeps connections alive plus tests running beside it.
constexpr size_t kWorkers = 32;
}

struct DevServer::Parts {
    explicit Parts(const Config& config)
        : store(config.dataDir),
          auth(store),
          uploads(store),
          requests(store),
          live(store),
          conversations(store),
          services{store, auth, uploads, requests, live, faults, config.adminToken, &conversations},
          router(http, faults) {}
    Store store;
    Auth auth;
    Uploads uploads;
    AgentRequests requests;
    LiveChunks live;
    Conversations conversations;
    FaultTable faults;
    Services services;
    httplib::Server http;
    Router router;
};

DevServer::DevServer(Config config) : config_(std::move(config)), parts_(std::make_unique<Parts>(config_)) {}
DevServer::~DevServer() = default;

bool DevServer::prepare(std::string& message) {
    auto& p = *parts_;
    std::error_code error;
    if (!p.store.load(error)) {
        message = "cannot read the state in " + config_.dataDir.string() + ": " + error.message();
        return false;
    }
    for (const auto& note : p.uploads.recover()) std::fprintf(stderr, "recovery: %s\n", note.c_str());
    if (!p.conversations.load(error)) {
        message = "cannot read the conversations in " + config_.dataDir.string() + ": " + error.message();
        return false;
    }

    std::vector<NewUser> users = config_.users;
    if (users.empty()) users.push_back(NewUser{kDemoEmail, kDemoPassword, {}, {}, "user"});
    for (const auto& user : users) {
        // An account that already matches keeps its state (used backup codes stay used).
        const std::string email = Auth::normalizeEmail(user.email);
        bool unchanged = p.store.read([&](const State& state) {
            auto it = state.accounts.find(email);
            return it != state.accounts.end() && it->second.setupDigest == Auth::setupDigest(user) &&
                   crypto::verifyPassword(it->second.passwordHash, user.password);
        });
        if (unchanged) continue;
        if (!p.auth.upsertUser(user)) {
            message = "invalid account " + user.email + " (empty email or password, or a TOTP secret that is not base32)";
            return false;
        }
    }
    for (const auto& request : config_.requests) {
        const std::string email = Auth::normalizeEmail(request.email);
        bool known = p.store.read([&](const State& state) { return state.accounts.count(email) > 0; });
        if (!known) {
            message = "--enqueue-request names an unknown account: " + request.email;
            return false;
        }
        p.requests.enqueue(email, request.fromMs, request.toMs, true);
    }

    p.http.new_task_queue = [] { return new httplib::ThreadPool(kWorkers); };
    // httplib's default adds SO_REUSEPORT, which lets a second server share a taken port
    // and receive half of its requests; a taken port must be an error.
    p.http.set_socket_options([](socket_t sock) {
        int yes = 1;
        ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    p.http.set_read_timeout(30, 0);
    p.http.set_write_timeout(30, 0);
    // A resumable upload is a long series of requests on one connection; closing it every
    // few requests (httplib's default of 5) only adds handshakes.
    p.http.set_keep_alive_max_count(1000);
    // A reply goes out as a header write and a body write; with Nagle on, the body waits
    // for the client's delayed ACK of the header (about 40 ms on Linux), once per upload part.
    p.http.set_tcp_nodelay(true);
    installRequestLog(p.http);
    addAuthRoutes(p.router, p.services);
    addUploadRoutes(p.router, p.services);
    addAgentRoutes(p.router, p.services);
    addTranscribeRoutes(p.router, p.services);
    addAdminRoutes(p.router, p.services);
    addLiveRoutes(p.router, p.services);
    addResultRoutes(p.router, p.services);
    p.conversations.startWorker();
    return true;
}

int DevServer::bind() {
    auto& http = parts_->http;
    if (config_.port == 0) return http.bind_to_any_port(config_.host);
    return http.bind_to_port(config_.host, config_.port) ? config_.port : -1;
}

bool DevServer::serve() { return parts_->http.listen_after_bind(); }

void DevServer::stop() {
    parts_->conversations.requestStop();
    parts_->http.stop();
}

void DevServer::finish() { parts_->conversations.stopWorker(); }

}  // namespace vell::devserver
