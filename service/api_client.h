#pragma once
// The one client of the Vell service: builds every request the same way, authenticates by
// the session cookie (kept in session storage so a restart stays signed in), and turns every
// outcome into a decoded JSON value or an APIError. Calls block; async() runs one on a
// worker thread and hands the result to the main executor.
#include <filesystem>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/expected.h"
#include "base/runtime.h"
#include "service/api_error.h"
#include "service/http_session.h"

namespace vell::service {

using Json = nlohmann::json;

// Seconds without a byte moving after which a request is given up, and the deliberately
// longer one of a resumable upload's part; and the limit of any one whole transfer.
inline constexpr double kRequestTimeout = 60;
inline constexpr double kPartTimeout = 90;
inline constexpr double kTransferLimit = 600;
// Key of the cookie snapshot in session storage, and the cookie that carries the session.
inline constexpr const char* kCookieSnapshotKey = "cookies.v1";
inline constexpr const char* kSessionCookieName = "vell_session";

struct ApiRequest {
    std::string method = "GET";
    std::string path;  // relative to the base URL; each "/"-separated component is escaped
    std::vector<std::pair<std::string, std::string>> query;
    std::optional<Json> json;  // sent with "Content-Type": "application/json"
    http::Headers headers;     // extra headers (a raw body names its own Content-Type)
    std::optional<std::string> body;
    std::optional<std::filesystem::path> bodyFile;
    double idleSeconds = kRequestTimeout;
    std::function<void(long long sent)> onUpload;  // bytes of the body sent so far
    double maxSeconds = kTransferLimit;             // limit of the whole exchange
    // A streamed 2xx answer, piece by piece on the transfer's thread (see http::Request).
    std::function<bool(const char* data, size_t size)> onBodyChunk;
};

// The service's root URL: the one fixed at build time, or for development and tests the
// environment's VELL_API_BASE_URL when it is https, or plain http to this computer
// (anything else is refused with a log line, so a stray variable cannot send a session
// cookie in clear over the network).
std::string configuredBaseURL();

class APIClient {
public:
    // Restores the cookie snapshot from session storage.
    explicit APIClient(std::string apiBaseURL = configuredBaseURL());
    // Abandons transfers in flight and waits for the worker threads.
    ~APIClient();
    APIClient(const APIClient&) = delete;
    APIClient& operator=(const APIClient&) = delete;

    const std::string& apiBaseURL() const { return baseURL_; }

    // The full HTTP request: URL, "Accept", "User-Agent", JSON body. Fails only when the
    // JSON body cannot be encoded.
    Expected<http::Request, APIError> build(ApiRequest request) const;
    // Transport failure, or an answer that is not HTTP; every status is returned as is.
    Expected<http::Response, APIError> perform(ApiRequest request) const;
    // perform + validation; the 2xx body decoded as JSON (an empty body reads as null).
    Expected<Json, APIError> send(ApiRequest request) const;

    // The validation rules on a received answer.
    static Expected<Json, APIError> validate(const http::Response& response);

    bool hasSessionCookie() const;
    // Snapshot of the cookies of the base URL's host into session storage; false when it
    // could not be stored.
    bool saveSession() const;
    // Rebuilds the cookie jar from the snapshot (done at construction).
    void restoreSession() const;
    // Forgets the base URL's cookies here and in session storage.
    void clearSession() const;

    // Runs work on a worker thread and then done(result) on the main executor.
    template <class T>
    void async(std::function<Expected<T, APIError>()> work, std::function<void(Expected<T, APIError>)> done) const {
        spawn([work = std::move(work), done = std::move(done)]() mutable {
            auto result = std::make_shared<Expected<T, APIError>>(work());
            runtime::main().post([done = std::move(done), result] { done(std::move(*result)); });
        });
    }
    // Runs a task on a worker thread (it must not outlive the client's use).
    void spawn(std::function<void()> task) const;
    const std::atomic<bool>& cancelled() const { return cancel_; }

private:
    // The base URL's host, parsed on first use: the parser is the HTTP library's, and a
    // signed-out start never needs the library otherwise.
    const std::string& host() const;

    std::string baseURL_;
    mutable std::once_flag hostParsed_;
    mutable std::string host_;
    std::unique_ptr<http::Session> session_;
    mutable std::atomic<bool> cancel_{false};
    mutable std::mutex workersMutex_;
    mutable std::list<std::future<void>> workers_;
};

// Reading fields of a decoded reply: nothing when missing, null or of another type.
std::optional<std::string> stringField(const Json& object, const char* key);
std::optional<long long> integerField(const Json& object, const char* key);

}  // namespace vell::service
