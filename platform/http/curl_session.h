#pragma once
// The service layer's http::Session on libcurl.
#include <memory>
#include <string>
#include <vector>

#include "service/http_session.h"

namespace vell::http {

class CurlSession final : public Session {
public:
    CurlSession();
    ~CurlSession() override;
    CurlSession(const CurlSession&) = delete;
    CurlSession& operator=(const CurlSession&) = delete;

    Expected<Response, TransportError> perform(const Request& request) const override;
    std::vector<Cookie> cookies() const override;
    std::vector<Cookie> cookiesForHost(const std::string& host) const override;
    void addCookie(const Cookie& cookie) const override;
    void removeCookiesForHost(const std::string& host) const override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// The host of an http(s) URL ("127.0.0.1" of "http://127.0.0.1:8787/"), by libcurl's parser.
std::string hostOf(const std::string& url);

}  // namespace vell::http
