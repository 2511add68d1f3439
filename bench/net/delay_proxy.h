// A TCP relay that holds every byte for half a round trip in each direction, so that a
// request/acknowledgement exchange through it costs one round trip, as on a distant link.
// A new connection also pays its handshake: nothing reaches the upstream before one round
// trip after the accept.
//
// Owns the listening socket it is given, the relayed connections and one thread (started
// by the constructor, joined by the destructor). The thread connects upstream from the
// network namespace named by upstreamNamespace (an fd of /proc/.../ns/net, or -1 for the
// constructing thread's own), so the listening side can live in another namespace.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

namespace vell::bench {

class DelayProxy {
public:
    DelayProxy(int listeningSocket, int upstreamNamespace, uint16_t upstreamPort, std::chrono::microseconds roundTrip);
    ~DelayProxy();
    DelayProxy(const DelayProxy&) = delete;
    DelayProxy& operator=(const DelayProxy&) = delete;

    // Set if the relay thread gave up (could not enter the namespace, poll failed).
    std::string failure() const;

private:
    void run();

    int listening_;
    int upstreamNamespace_;
    uint16_t upstreamPort_;
    std::chrono::microseconds roundTrip_;
    int wake_[2] = {-1, -1};
    std::atomic<bool> stop_{false};
    std::string failure_;
    std::atomic<bool> failed_{false};
    std::thread thread_;
};

}  // namespace vell::bench
