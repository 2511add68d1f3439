#pragma once
// The reference service put together: state, accounts, uploads, faults and the HTTP server.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "devserver/auth.h"

namespace vell::devserver {

inline constexpr const char* kDemoEmail = "demo@vell.local";
inline constexpr const char* kDemoPassword = "vell-demo";

struct Config {
    std::string host = "127.0.0.1";
    int port = 8787;  // 0 picks a free port
    std::filesystem::path dataDir;
    std::vector<NewUser> users;  // none: the demo account
    std::string adminToken;
    struct Request {
        std::string email;
        int64_t fromMs = 0, toMs = 0;
    };
    std::vector<Request> requests;
};

class DevServer {
public:
    explicit DevServer(Config config);
    ~DevServer();

    // Loads the state and sets up accounts; false with a message on failure.
    bool prepare(std::string& message);
    // Binds the port; the bound port, or -1.
    int bind();
    // Serves until stop(); returns false when the server could not run.
    bool serve();
    // Any thread: serve() returns once the requests under way are answered, and the
    // recognition worker takes no further job.
    void stop();
    // After serve() returned, on its thread: waits for the recognition worker.
    void finish();

private:
    struct Parts;
    Config config_;
    std::unique_ptr<Parts> parts_;
};

}  // namespace vell::devserver
