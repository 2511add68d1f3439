#include "bench/net/delay_proxy.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <list>
#include <vector>

namespace vell::bench {

namespace {

using Clock = std::chrono::steady_clock;

// Bytes held per direction before the relay stops reading: far above what a 30 ms,
// 100 Mbit/s link keeps in flight, small enough to bound memory.
constexpr size_t kMaxQueuedBytes = 8 << 20;
constexpr size_t kReadBytes = 256 << 10;
// At most this long between looks at the stop flag.
constexpr auto kMaxWait = std::chrono::milliseconds(100);

struct Chunk {
    Clock::time_point due;
    std::string data;
    size_t sent = 0;
};

// One direction of a relayed connection.
struct Flow {
    int from = -1, to = -1;
    Clock::time_point notBefore;
    std::deque<Chunk> queue;
    size_t queued = 0;
    bool ended = false;     // `from` said end of stream
    bool shutDown = false;  // passed on to `to`
    bool blocked = false;   // `to` would block with a due chunk

    bool done() const { return ended && shutDown; }
};

struct Connection {
    int client = -1, upstream = -1;
    Flow up, down;
    bool broken = false;
    ~Connection() {
        if (client >= 0) ::close(client);
        if (upstream >= 0) ::close(upstream);
    }
};

void nonBlocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }

// Sends what is due; false when the peer is gone.
bool flush(Flow& flow, Clock::time_point now) {
    flow.blocked = false;
    while (!flow.queue.empty() && flow.queue.front().due <= now) {
        Chunk& chunk = flow.queue.front();
        ssize_t n = ::send(flow.to, chunk.data.data() + chunk.sent, chunk.data.size() - chunk.sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            flow.blocked = true;
            return true;
        }
        if (n < 0) return false;
        chunk.sent += static_cast<size_t>(n);
        flow.queued -= static_cast<size_t>(n);
        if (chunk.sent == chunk.data.size()) flow.queue.pop_front();
    }
    if (flow.ended && flow.queue.empty() && !flow.shutDown) {
        ::shutdown(flow.to, SHUT_WR);
        flow.shutDown = true;
    }
    return true;
}

// Reads what arrived and queues it for half a round trip later; false on a reset.
bool receive(Flow& flow, Clock::time_point now, std::chrono::microseconds oneWay) {
    std::string buffer(kReadBytes, '\0');
    ssize_t n = ::recv(flow.from, buffer.data(), buffer.size(), 0);
    if (n < 0) return errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK;
    if (n == 0) {
        flow.ended = true;
        return true;
    }
    buffer.resize(static_cast<size_t>(n));
    flow.queued += buffer.size();
    flow.queue.push_back({std::max(now + oneWay, flow.notBefore), std::move(buffer)});
    return true;
}

}  // namespace

DelayProxy::DelayProxy(int listeningSocket, int upstreamNamespace, uint16_t upstreamPort,
                       std::chrono::microseconds roundTrip)
    : listening_(listeningSocket), upstreamNamespace_(upstreamNamespace), upstreamPort_(upstreamPort), roundTrip_(roundTrip) {
    if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
        failure_ = std::string("pipe: ") + std::strerror(errno);
        failed_ = true;
        return;
    }
    nonBlocking(listening_);
    thread_ = std::thread([this] { run(); });
}

DelayProxy::~DelayProxy() {
    stop_ = true;
    if (wake_[1] >= 0) {
        char b = 0;
        [[maybe_unused]] ssize_t n = ::write(wake_[1], &b, 1);
    }
    if (thread_.joinable()) thread_.join();
    for (int fd : wake_) {
        if (fd >= 0) ::close(fd);
    }
    if (listening_ >= 0) ::close(listening_);
}

std::string DelayProxy::failure() const { return failed_ ? failure_ : std::string(); }

void DelayProxy::run() {
    auto fail = [this](const std::string& what) {
        failure_ = what + ": " + std::strerror(errno);
        failed_ = true;
    };
    if (upstreamNamespace_ >= 0 && ::setns(upstreamNamespace_, CLONE_NEWNET) != 0) return fail("setns");
    const auto oneWay = roundTrip_ / 2;
    std::list<Connection> connections;
    std::vector<pollfd> fds;
    while (!stop_) {
        auto now = Clock::now();
        for (auto& c : connections) {
            if (!flush(c.up, now) || !flush(c.down, now)) c.broken = true;
        }
        connections.remove_if([](const Connection& c) { return c.broken || (c.up.done() && c.down.done()); });

        fds.clear();
        fds.push_back({wake_[0], POLLIN, 0});
        fds.push_back({listening_, POLLIN, 0});
        auto wakeAt = now + kMaxWait;
        for (auto& c : connections) {
            for (Flow* f : {&c.up, &c.down}) {
                if (!f->ended && f->queued < kMaxQueuedBytes) fds.push_back({f->from, POLLIN, 0});
                if (f->blocked) fds.push_back({f->to, POLLOUT, 0});
                if (!f->blocked && !f->queue.empty()) wakeAt = std::min(wakeAt, f->queue.front().due);
            }
        }
        auto wait = std::max(std::chrono::nanoseconds(0), wakeAt - now);
        timespec timeout{static_cast<time_t>(wait.count() / 1'000'000'000), static_cast<long>(wait.count() % 1'000'000'000)};
        int ready = ::ppoll(fds.data(), fds.size(), &timeout, nullptr);
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) return fail("ppoll");
        if (ready == 0) continue;

        now = Clock::now();
        if (fds[1].revents & POLLIN) {
            int client = ::accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (client >= 0) {
                int upstream = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
                sockaddr_in to{};
                to.sin_family = AF_INET;
                to.sin_port = htons(upstreamPort_);
                to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                if (upstream < 0 || ::connect(upstream, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
                    ::close(client);
                    if (upstream >= 0) ::close(upstream);
                } else {
                    nonBlocking(upstream);
                    int one = 1;
                    ::setsockopt(upstream, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                    ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                    auto& c = connections.emplace_back();
                    c.client = client;
                    c.upstream = upstream;
                    // The handshake's round trip comes before the first byte can leave.
                    c.up = {client, upstream, now + roundTrip_};
                    c.down = {upstream, client, now};
                }
            }
        }
        // Readiness of the connections' sockets, matched by fd: read what arrived.
        for (size_t i = 2; i < fds.size(); ++i) {
            if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            for (auto& c : connections) {
                for (Flow* f : {&c.up, &c.down}) {
                    if (f->from == fds[i].fd && (fds[i].events & POLLIN) && !receive(*f, now, oneWay)) c.broken = true;
                }
            }
        }
    }
}

}  // namespace vell::bench
