// A slow, distant link on this machine: the calling thread moves into a network namespace
// of its own whose loopback is limited by a token bucket (tc tbf), and a DelayProxy listens
// there, relaying to a port on the original namespace's loopback with the round trip added.
// Programs the thread starts afterwards (curl) inherit the namespace.
//
// The namespace has no name and no other interface: it goes away with the last socket or
// process in it, so a crash or a kill leaves nothing behind. The destructor returns the
// thread to its original namespace.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "bench/net/delay_proxy.h"

namespace vell::bench {

struct LinkShape {
    double megabitsPerSecond = 100;
    std::chrono::microseconds roundTrip{30'000};
};

class ShapedLink {
public:
    // nullptr and the reason (not root, no `ip`/`tc`, no tbf) when the link cannot be made;
    // the calling thread is then back in its own namespace.
    static std::unique_ptr<ShapedLink> open(uint16_t upstreamPort, const LinkShape& shape, std::string& whyNot);
    ~ShapedLink();
    ShapedLink(const ShapedLink&) = delete;
    ShapedLink& operator=(const ShapedLink&) = delete;

    // The proxy's address as seen from inside the namespace: "http://127.0.0.1:<port>/".
    const std::string& url() const { return url_; }
    std::string failure() const { return proxy_ ? proxy_->failure() : std::string(); }

private:
    ShapedLink() = default;

    int home_ = -1;  // the thread's original namespace
    std::unique_ptr<DelayProxy> proxy_;
    std::string url_;
};

}  // namespace vell::bench
