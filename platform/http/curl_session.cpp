// http::CurlSession: the service layer's http::Session on libcurl.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <atomic>
#include <mutex>

#include "platform/http/curl_library.h"
#include "platform/http/curl_session.h"

namespace vell::http {

namespace {

// An answer larger than this is not a JSON reply of the service; stop reading it.
constexpr size_t kMaxResponseBytes = 16 * 1024 * 1024;
// Larger pieces than the 64 KiB default mean fewer reads and writes for file bodies.
constexpr long kUploadBufferBytes = 512 * 1024;

struct Body {
    const std::string* memory = nullptr;
    int fd = -1;
    curl_off_t size = 0;
    curl_off_t position = 0;
};

size_t readBody(char* buffer, size_t size, size_t count, void* user) {
    auto* body = static_cast<Body*>(user);
    size_t want = std::min<curl_off_t>(static_cast<curl_off_t>(size * count), body->size - body->position);
    if (want == 0) return 0;
    if (body->memory) {
        std::memcpy(buffer, body->memory->data() + body->position, want);
        body->position += static_cast<curl_off_t>(want);
        return want;
    }
    ssize_t n;
    do {
        n = ::pread(body->fd, buffer, want, body->position);
    } while (n < 0 && errno == EINTR);
    // A file that shrank under us: abort rather than send a short body.
    if (n <= 0) return CURL_READFUNC_ABORT;
    body->position += n;
    return static_cast<size_t>(n);
}

int seekBody(void* user, curl_off_t offset, int origin) {
    auto* body = static_cast<Body*>(user);
    if (origin != SEEK_SET || offset < 0 || offset > body->size) return CURL_SEEKFUNC_FAIL;
    body->position = offset;
    return CURL_SEEKFUNC_OK;
}

struct Sink {
    CURL* handle = nullptr;
    const Request* request = nullptr;
    std::string* collected = nullptr;
};

size_t writeResponse(char* data, size_t size, size_t count, void* user) {
    auto* sink = static_cast<Sink*>(user);
    size_t n = size * count;
    if (sink->request->onBodyChunk) {
        // The status line and headers are in by the time the first body byte is.
        long status = 0;
        libcurl().curl_easy_getinfo(sink->handle, CURLINFO_RESPONSE_CODE, &status);
        if (status >= 200 && status <= 299) return sink->request->onBodyChunk(data, n) ? n : 0;
    }
    if (sink->collected->size() + n > kMaxResponseBytes) return 0;
    sink->collected->append(data, n);
    return n;
}

int progress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t uploaded) {
    const auto* request = static_cast<const Request*>(user);
    if (request->cancel && request->cancel->load()) return 1;
    if (request->onUpload && uploaded > 0) request->onUpload(static_cast<long long>(uploaded));
    return 0;
}

struct SList {
    curl_slist* list = nullptr;
    ~SList() { libcurl().curl_slist_free_all(list); }
    void add(const std::string& line) {
        if (auto* next = libcurl().curl_slist_append(list, line.c_str())) list = next;
    }
};

struct Easy {
    CURL* handle = libcurl().curl_easy_init();
    ~Easy() {
        if (handle) libcurl().curl_easy_cleanup(handle);
    }
};

bool noConnection(CURLcode code) {
    return code == CURLE_COULDNT_RESOLVE_HOST || code == CURLE_COULDNT_CONNECT || code == CURLE_COULDNT_RESOLVE_PROXY;
}

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}

// Netscape cookie-file line, the form libcurl reads and writes.
std::string toNetscape(const Cookie& c) {
    bool subdomains = !c.domain.empty() && c.domain.front() == '.';
    std::string line = (c.httpOnly ? "#HttpOnly_" : "") + c.domain;
    line += std::string("\t") + (subdomains ? "TRUE" : "FALSE");
    line += "\t" + (c.path.empty() ? std::string("/") : c.path);
    line += std::string("\t") + (c.secure ? "TRUE" : "FALSE");
    line += "\t" + std::to_string(c.expires.value_or(0));
    line += "\t" + c.name + "\t" + c.value;
    return line;
}

std::optional<Cookie> fromNetscape(const std::string& line) {
    std::array<std::string, 7> field;
    size_t start = 0;
    for (size_t i = 0; i < field.size(); ++i) {
        size_t tab = i + 1 < field.size() ? line.find('\t', start) : std::string::npos;
        if (i + 1 < field.size() && tab == std::string::npos) return std::nullopt;
        field[i] = line.substr(start, tab == std::string::npos ? std::string::npos : tab - start);
        start = tab + 1;
    }
    Cookie c;
    c.domain = field[0];
    constexpr std::string_view kHttpOnly = "#HttpOnly_";
    if (c.domain.rfind(kHttpOnly, 0) == 0) {
        c.httpOnly = true;
        c.domain.erase(0, kHttpOnly.size());
    }
    c.path = field[2];
    c.secure = field[3] == "TRUE";
    long long expires = std::atoll(field[4].c_str());
    if (expires != 0) c.expires = expires;
    c.name = field[5];
    c.value = field[6];
    return c;
}

bool domainMatches(const std::string& cookieDomain, const std::string& host) {
    std::string domain = lower(cookieDomain);
    std::string h = lower(host);
    if (!domain.empty() && domain.front() == '.') domain.erase(0, 1);
    if (h == domain) return true;
    return h.size() > domain.size() && h.compare(h.size() - domain.size(), domain.size(), domain) == 0 &&
           h[h.size() - domain.size() - 1] == '.';
}

}  // namespace

struct CurlSession::Impl {
    std::array<std::mutex, CURL_LOCK_DATA_LAST> locks;
    std::mutex making;
    // Made on the first transfer or cookie given, which loads libcurl: until then the jar
    // is empty, and a session that only checks for cookies never loads it.
    std::atomic<CURLSH*> share{nullptr};

    ~Impl() {
        if (CURLSH* s = share.load()) libcurl().curl_share_cleanup(s);
    }

    Expected<CURLSH*, std::string> jar() {
        if (CURLSH* s = share.load()) return s;
        std::lock_guard guard(making);
        if (CURLSH* s = share.load()) return s;
        if (auto loaded = curlLibrary(); !loaded) return unexpected(loaded.error());
        CURLSH* s = libcurl().curl_share_init();
        if (!s) return unexpected(std::string("could not create the cookie jar"));
        libcurl().curl_share_setopt(s, CURLSHOPT_LOCKFUNC, &Impl::lock);
        libcurl().curl_share_setopt(s, CURLSHOPT_UNLOCKFUNC, &Impl::unlock);
        libcurl().curl_share_setopt(s, CURLSHOPT_USERDATA, this);
        libcurl().curl_share_setopt(s, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
        libcurl().curl_share_setopt(s, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
        libcurl().curl_share_setopt(s, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
        libcurl().curl_share_setopt(s, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
        share = s;
        return s;
    }
    bool made() const { return share.load() != nullptr; }

    static void lock(CURL*, curl_lock_data data, curl_lock_access, void* user) {
        static_cast<Impl*>(user)->locks[static_cast<size_t>(data) % CURL_LOCK_DATA_LAST].lock();
    }
    static void unlock(CURL*, curl_lock_data data, void* user) {
        static_cast<Impl*>(user)->locks[static_cast<size_t>(data) % CURL_LOCK_DATA_LAST].unlock();
    }

    // An easy handle on the shared jar, with the cookie engine switched on.
    static void attach(CURL* h, CURLSH* jar) {
        libcurl().curl_easy_setopt(h, CURLOPT_SHARE, jar);
        libcurl().curl_easy_setopt(h, CURLOPT_COOKIEFILE, "");
    }
};

CurlSession::CurlSession() : impl_(std::make_unique<Impl>()) {}
CurlSession::~CurlSession() = default;

Expected<Response, TransportError> CurlSession::perform(const Request& request) const {
    auto jar = impl_->jar();
    if (!jar) return unexpected(TransportError{CURLE_FAILED_INIT, jar.error(), false});
    Easy easy;
    if (!easy.handle) return unexpected(TransportError{CURLE_OUT_OF_MEMORY, "could not create a transfer", false});
    CURL* h = easy.handle;
    Impl::attach(h, *jar);

    std::array<char, CURL_ERROR_SIZE> errorText{};
    Response response;
    libcurl().curl_easy_setopt(h, CURLOPT_URL, request.url.c_str());
    libcurl().curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errorText.data());
    libcurl().curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    libcurl().curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
    libcurl().curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
    libcurl().curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &writeResponse);
    Sink sink{h, &request, &response.body};
    libcurl().curl_easy_setopt(h, CURLOPT_WRITEDATA, &sink);
    // Idle limit: below one byte a second for that long, or that long to connect.
    const double idle = std::max(request.idleSeconds, 1.0);
    libcurl().curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(idle * 1000));
    libcurl().curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, 1L);
    libcurl().curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, static_cast<long>(std::ceil(idle)));
    libcurl().curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, static_cast<long>(std::max(request.maxSeconds, idle) * 1000));
    libcurl().curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, &progress);
    libcurl().curl_easy_setopt(h, CURLOPT_XFERINFODATA, &request);
    libcurl().curl_easy_setopt(h, CURLOPT_NOPROGRESS, request.cancel || request.onUpload ? 0L : 1L);

    Body body;
    int fd = -1;
    if (request.bodyFile) {
        fd = ::open(request.bodyFile->c_str(), O_RDONLY | O_CLOEXEC);
        struct stat st {};
        if (fd < 0 || ::fstat(fd, &st) != 0) {
            int err = errno;
            if (fd >= 0) ::close(fd);
            return unexpected(TransportError{CURLE_READ_ERROR, std::string("cannot read the request body: ") + std::strerror(err), false});
        }
        body.fd = fd;
        body.size = st.st_size;
    } else if (request.body) {
        body.memory = &*request.body;  // POSTFIELDS keeps pointing here until the transfer ends
        body.size = static_cast<curl_off_t>(request.body->size());
    }
    bool hasBody = request.body || request.bodyFile;

    SList headers;
    bool hasContentType = false;
    for (const auto& [name, value] : request.headers) {
        headers.add(name + ": " + value);
        if (lower(name) == "content-type") hasContentType = true;
    }
    if (request.method == "GET") {
        libcurl().curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
    } else if (request.method == "HEAD") {
        libcurl().curl_easy_setopt(h, CURLOPT_NOBODY, 1L);
    } else {
        libcurl().curl_easy_setopt(h, CURLOPT_POST, 1L);
        libcurl().curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, body.size);
        if (body.memory) {
            // Sent straight from the caller's buffer, without a copy.
            libcurl().curl_easy_setopt(h, CURLOPT_POSTFIELDS, body.memory->data());
        } else {
            libcurl().curl_easy_setopt(h, CURLOPT_READFUNCTION, &readBody);
            libcurl().curl_easy_setopt(h, CURLOPT_READDATA, &body);
            libcurl().curl_easy_setopt(h, CURLOPT_SEEKFUNCTION, &seekBody);
            libcurl().curl_easy_setopt(h, CURLOPT_SEEKDATA, &body);
            libcurl().curl_easy_setopt(h, CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferBytes);
        }
        if (request.method != "POST") libcurl().curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, request.method.c_str());
        // A body goes at once: no "100 Continue" round trip. Without a body nothing claims
        // a form encoding.
        headers.add("Expect:");
        if (!hasContentType) headers.add("Content-Type:");
    }
    (void)hasBody;
    libcurl().curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.list);

    CURLcode code = libcurl().curl_easy_perform(h);
    if (fd >= 0) ::close(fd);
    if (code != CURLE_OK) {
        std::string text = errorText[0] ? errorText.data() : libcurl().curl_easy_strerror(code);
        // libcurl words the idle limit as a speed; say what happened instead.
        if (code == CURLE_OPERATION_TIMEDOUT && text.find("too slow") != std::string::npos) {
            text = "Timed out: nothing was sent or received for " + std::to_string(static_cast<long>(std::ceil(idle))) + " s";
        }
        return unexpected(TransportError{static_cast<int>(code), text, noConnection(code)});
    }
    libcurl().curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &response.status);
    return response;
}

std::vector<Cookie> CurlSession::cookies() const {
    std::vector<Cookie> out;
    if (!impl_->made()) return out;
    Easy easy;
    if (!easy.handle) return out;
    Impl::attach(easy.handle, *impl_->jar());
    curl_slist* list = nullptr;
    if (libcurl().curl_easy_getinfo(easy.handle, CURLINFO_COOKIELIST, &list) != CURLE_OK) return out;
    for (curl_slist* item = list; item; item = item->next) {
        if (auto c = fromNetscape(item->data)) out.push_back(std::move(*c));
    }
    libcurl().curl_slist_free_all(list);
    return out;
}

std::vector<Cookie> CurlSession::cookiesForHost(const std::string& host) const {
    std::vector<Cookie> out;
    for (auto& c : cookies()) {
        if (domainMatches(c.domain, host)) out.push_back(std::move(c));
    }
    return out;
}

void CurlSession::addCookie(const Cookie& cookie) const {
    auto jar = impl_->jar();
    if (!jar) return;
    Easy easy;
    if (!easy.handle) return;
    Impl::attach(easy.handle, *jar);
    libcurl().curl_easy_setopt(easy.handle, CURLOPT_COOKIELIST, toNetscape(cookie).c_str());
}

void CurlSession::removeCookiesForHost(const std::string& host) const {
    if (!impl_->made()) return;
    auto all = cookies();
    Easy easy;
    if (!easy.handle) return;
    Impl::attach(easy.handle, *impl_->jar());
    libcurl().curl_easy_setopt(easy.handle, CURLOPT_COOKIELIST, "ALL");
    for (const auto& c : all) {
        if (!domainMatches(c.domain, host)) libcurl().curl_easy_setopt(easy.handle, CURLOPT_COOKIELIST, toNetscape(c).c_str());
    }
}

std::string hostOf(const std::string& url) {
    if (auto loaded = curlLibrary(); !loaded) return {};
    CURLU* u = libcurl().curl_url();
    std::string host;
    if (libcurl().curl_url_set(u, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK) {
        char* part = nullptr;
        if (libcurl().curl_url_get(u, CURLUPART_HOST, &part, 0) == CURLUE_OK && part) {
            host = part;
            libcurl().curl_free(part);
        }
    }
    libcurl().curl_url_cleanup(u);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    return host;
}

}  // namespace vell::http
