#pragma once
// A blocking HTTP session over libcurl: one cookie jar and connection cache shared by every
// request, redirects never followed, safe to use from several threads at once.
#include <memory>
#include <string>
#include <vector>

#include "platform/expected.h"
#include "platform/http_types.h"

namespace vell::http {

class Session {
public:
    Session();
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Performs the request on the calling thread. Any HTTP answer (including 3xx and
    // errors) is a Response; only a failed exchange is a TransportError.
    Expected<Response, TransportError> perform(const Request& request) const;

    // Every cookie in the jar.
    std::vector<Cookie> cookies() const;
    // Cookies that a request to this host would carry (domain match, expiry ignored).
    std::vector<Cookie> cookiesForHost(const std::string& host) const;
    void addCookie(const Cookie& cookie) const;
    // Removes the cookies that a request to this host would carry.
    void removeCookiesForHost(const std::string& host) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The host of an http(s) URL ("127.0.0.1" of "http://127.0.0.1:8787/").
std::string hostOf(const std::string& url);
// Percent-encodes everything outside the unreserved set of RFC 3986.
std::string percentEncode(const std::string& text);

}  // namespace vell::http
