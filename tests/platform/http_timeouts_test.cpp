// The limits of one HTTP exchange: a transfer that keeps moving is never cut off by the idle
// limit however long it takes, one that stalls is, and the whole-transfer ceiling holds.
// A raw loopback server paces its answer so the timing is the server's, not the machine's.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "platform/http/curl_session.h"

namespace vell::http {
namespace {

using namespace std::chrono_literals;

// Answers one request: waits `before`, then sends the body one byte every `pace`.
class PacedServer {
public:
    PacedServer(std::chrono::milliseconds before, std::chrono::milliseconds pace, std::string body)
        : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener_, 1);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([=, this] {
            int client = ::accept(listener_, nullptr, nullptr);
            if (client < 0) return;
            char buffer[4096];
            std::string request;
            while (request.find("\r\n\r\n") == std::string::npos) {
                ssize_t n = ::recv(client, buffer, sizeof buffer, 0);
                if (n <= 0) break;
                request.append(buffer, size_t(n));
            }
            std::this_thread::sleep_for(before);
            std::string head = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n";
            ::send(client, head.data(), head.size(), MSG_NOSIGNAL);
            for (char c : body) {
                if (::send(client, &c, 1, MSG_NOSIGNAL) != 1) break;
                std::this_thread::sleep_for(pace);
            }
            ::close(client);
        });
    }
    ~PacedServer() {
        ::shutdown(listener_, SHUT_RDWR);
        thread_.join();
        ::close(listener_);
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }

private:
    int listener_;
    int port_ = 0;
    std::thread thread_;
};

TEST(HttpLimits, ASlowAnswerThatKeepsMovingOutlastsTheIdleLimit) {
    PacedServer server(0ms, 250ms, "0123456789");  // 2.5 s in all, never idle for 1 s
    CurlSession session;
    auto response = session.perform({.url = server.url(), .idleSeconds = 1, .maxSeconds = 30});
    ASSERT_TRUE(response) << response.error().description;
    EXPECT_EQ(response->body, "0123456789");
}

TEST(HttpLimits, AnAnswerThatStallsIsGivenUpAfterTheIdleLimit) {
    PacedServer server(4000ms, 0ms, "late");
    CurlSession session;
    auto started = std::chrono::steady_clock::now();
    auto response = session.perform({.url = server.url(), .idleSeconds = 1, .maxSeconds = 30});
    ASSERT_FALSE(response);
    EXPECT_NE(response.error().description.find("imed out"), std::string::npos) << response.error().description;
    EXPECT_LT(std::chrono::steady_clock::now() - started, 3500ms);  // it did not wait for the answer
}

TEST(HttpLimits, NoTransferOutlivesItsCeiling) {
    PacedServer server(0ms, 300ms, "0123456789");  // moving, but 3 s in all
    CurlSession session;
    auto response = session.perform({.url = server.url(), .idleSeconds = 1, .maxSeconds = 1.5});
    ASSERT_FALSE(response);
    EXPECT_NE(response.error().description.find("imed out"), std::string::npos) << response.error().description;
}

}  // namespace
}  // namespace vell::http
