#include "service/api_client.h"

#include <chrono>
#include <cstdlib>

#include "base/log.h"
#include "service/reply_records.h"
#include "session/session_file_store.h"

namespace vell::service {

namespace {

const log::Logger& logger() {
    static const log::Logger l("APIClient");
    return l;
}

std::string joinPath(const std::string& base, const std::string& path) {
    std::string url = base;
    if (url.empty() || url.back() != '/') url += '/';
    size_t start = 0;
    bool first = true;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        std::string component = path.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        if (!component.empty()) {
            if (!first) url += '/';
            url += http::percentEncode(component);
            first = false;
        }
        if (slash == std::string::npos) break;
        start = slash + 1;
    }
    return url;
}

bool isLoopback(const std::string& host) {
    return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

}  // namespace

std::string configuredBaseURL() {
    const char* override = std::getenv("VELL_API_BASE_URL");
    if (!override || !*override) return VELL_API_BASE_URL;
    const std::string url = override;
    const std::string host = http::binding().hostOf(url);
    const bool https = url.rfind("https://", 0) == 0 && !host.empty();
    const bool localHttp = url.rfind("http://", 0) == 0 && isLoopback(host);
    if (https || localHttp) return url;
    logger().error("VELL_API_BASE_URL ignored (only https, or http to this computer): " + url);
    return VELL_API_BASE_URL;
}

APIClient::APIClient(std::string apiBaseURL) : baseURL_(std::move(apiBaseURL)),
      session_(http::binding().makeSession()) {
    restoreSession();
}

APIClient::~APIClient() {
    cancel_ = true;
    std::list<std::future<void>> workers;
    {
        std::lock_guard lock(workersMutex_);
        workers.swap(workers_);
    }
    for (auto& w : workers) w.wait();
}

void APIClient::spawn(std::function<void()> task) const {
    std::lock_guard lock(workersMutex_);
    workers_.remove_if([](std::future<void>& f) { return f.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
    workers_.push_back(std::async(std::launch::async, std::move(task)));
}

Expected<http::Request, APIError> APIClient::build(ApiRequest request) const {
    http::Request out;
    out.method = request.method;
    out.url = joinPath(baseURL_, request.path);
    if (!request.query.empty()) {
        char separator = '?';
        for (const auto& [name, value] : request.query) {
            out.url += separator + http::percentEncode(name) + "=" + http::percentEncode(value);
            separator = '&';
        }
    }
    out.idleSeconds = request.idleSeconds;
    out.maxSeconds = request.maxSeconds;
    out.onUpload = std::move(request.onUpload);
    out.onBodyChunk = std::move(request.onBodyChunk);
    out.cancel = &cancel_;
    // A caller that reads another format names its own "Accept".
    bool namesAccept = false;
    for (const auto& header : request.headers) namesAccept = namesAccept || header.first == "Accept";
    if (!namesAccept) out.headers.emplace_back("Accept", "application/json");
    out.headers.emplace_back("User-Agent", http::binding().userAgent());
    if (request.json) {
        try {
            out.body = request.json->dump();
        } catch (const Json::exception& e) {
            return unexpected(APIError::decoding(std::string("request body could not be encoded: ") + e.what()));
        }
        out.headers.emplace_back("Content-Type", "application/json");
    } else if (request.body) {
        out.body = std::move(request.body);
    } else if (request.bodyFile) {
        out.bodyFile = std::move(request.bodyFile);
    }
    for (auto& header : request.headers) out.headers.push_back(std::move(header));
    return out;
}

Expected<http::Response, APIError> APIClient::perform(ApiRequest request) const {
    std::string method = request.method, path = request.path;
    auto built = build(std::move(request));
    if (!built) return unexpected(built.error());
    auto result = session_->perform(*built);
    if (!result) {
        const auto& e = result.error();
        logger().info(method + " " + path + " failed: " + e.description);
        return unexpected(APIError::transport(e.code, e.description, e.noConnection));
    }
    if (result->status == 0) return unexpected(APIError::decoding("no response"));
    logger().debug(method + " " + path + " -> " + std::to_string(result->status));
    return std::move(*result);
}

Expected<Json, APIError> APIClient::validate(const http::Response& response) {
    long status = response.status;
    if (status >= 300 && status <= 399) return unexpected(APIError::unauthenticated());
    if (status >= 200 && status <= 299) {
        if (response.body.empty()) return Json();
        Json value = Json::parse(response.body, nullptr, false);
        if (value.is_discarded()) return unexpected(APIError::decoding("the reply is not JSON"));
        return value;
    }
    if (status == 401) return unexpected(APIError::unauthenticated());
    auto body = decodeErrorBody(response.body).value_or(ErrorBody{});
    return unexpected(APIError::http(static_cast<int>(status), body.error, body.message));
}

Expected<Json, APIError> APIClient::send(ApiRequest request) const {
    auto response = perform(std::move(request));
    if (!response) return unexpected(response.error());
    return validate(*response);
}

const std::string& APIClient::host() const {
    std::call_once(hostParsed_, [this] { host_ = http::binding().hostOf(baseURL_); });
    return host_;
}

bool APIClient::hasSessionCookie() const {
    // An empty jar answers without the host.
    if (session_->cookies().empty()) return false;
    for (const auto& c : session_->cookiesForHost(host())) {
        if (c.name == kSessionCookieName) return true;
    }
    return false;
}

bool APIClient::saveSession() const {
    return session::SessionFileStore::write(kCookieSnapshotKey, http::binding().encodeCookies(session_->cookiesForHost(host())));
}

void APIClient::restoreSession() const {
    auto bytes = session::SessionFileStore::read(kCookieSnapshotKey);
    if (!bytes) return;
    auto cookies = http::binding().decodeCookies(*bytes);
    if (!cookies) {
        logger().error("the stored session could not be read; signed out");
        return;
    }
    for (const auto& c : *cookies) session_->addCookie(c);
}

void APIClient::clearSession() const {
    session_->removeCookiesForHost(host());
    session::SessionFileStore::remove(kCookieSnapshotKey);
}

std::optional<std::string> stringField(const Json& object, const char* key) {
    if (!object.is_object()) return std::nullopt;
    auto it = object.find(key);
    if (it == object.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

std::optional<long long> integerField(const Json& object, const char* key) {
    if (!object.is_object()) return std::nullopt;
    auto it = object.find(key);
    if (it == object.end() || !it->is_number_integer()) return std::nullopt;
    return it->get<long long>();
}

}  // namespace vell::service
