#pragma once
// The port to an HTTP library: a blocking session with one cookie jar and connection cache
// shared by every request, redirects never followed, safe to use from several threads at
// once. The HTTP binding implements it and the composition root installs it at start-up.
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/expected.h"
#include "service/http_types.h"

namespace vell::http {

class Session {
public:
    virtual ~Session() = default;

    // Performs the request on the calling thread. Any HTTP answer (including 3xx and
    // errors) is a Response; only a failed exchange is a TransportError.
    virtual Expected<Response, TransportError> perform(const Request& request) const = 0;

    // Every cookie in the jar.
    virtual std::vector<Cookie> cookies() const = 0;
    // Cookies that a request to this host would carry (domain match, expiry ignored).
    virtual std::vector<Cookie> cookiesForHost(const std::string& host) const = 0;
    virtual void addCookie(const Cookie& cookie) const = 0;
    // Removes the cookies that a request to this host would carry.
    virtual void removeCookiesForHost(const std::string& host) const = 0;
};

// What the service layer takes from the HTTP binding.
struct Binding {
    std::function<std::unique_ptr<Session>()> makeSession;
    // The host of an http(s) URL ("127.0.0.1" of "http://127.0.0.1:8787/").
    std::function<std::string(const std::string& url)> hostOf;
    // The User-Agent every request carries.
    std::function<std::string()> userAgent;
    // The cookie snapshot kept in session storage, and back (nothing when unreadable).
    std::function<std::string(const std::vector<Cookie>& cookies)> encodeCookies;
    std::function<std::optional<std::vector<Cookie>>(const std::string& bytes)> decodeCookies;
};

// Set once at start-up, before the first client is made.
void install(Binding binding);
// Throws std::logic_error when nothing was installed.
const Binding& binding();

// Percent-encodes everything outside the unreserved set of RFC 3986.
std::string percentEncode(const std::string& text);

}  // namespace vell::http
