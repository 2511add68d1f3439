#include "platform/calendar/calendar_fetch.h"

#include <algorithm>
#include <cctype>
#include <memory>

#include "base/utf8.h"
#include "platform/calendar/ical_expand.h"
#include "platform/http/curl_library.h"

namespace vell::calendar {

using http::libcurl;

namespace {

struct Transfer {
    std::string body;
    std::string etag, lastModified;
    bool tooLarge = false;
};

size_t onBody(char* data, size_t size, size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    const size_t n = size * count;
    if (t->body.size() + n > kMaximumCalendarBytes) {
        t->tooLarge = true;
        return 0;  // aborts the transfer
    }
    t->body.append(data, n);
    return n;
}

std::string trim(std::string s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.pop_back();
    std::size_t i = 0;
    while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
    return s.substr(i);
}

size_t onHeader(char* data, size_t size, size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    const std::string line(data, size * count);
    const auto colon = line.find(':');
    if (colon == std::string::npos) {
        // A new response (after a redirect) starts over.
        if (line.rfind("HTTP/", 0) == 0) t->etag.clear(), t->lastModified.clear();
        return size * count;
    }
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    // Kept in a JSON file beside the copy: UTF-8 only.
    if (name == "etag") t->etag = validUtf8(trim(line.substr(colon + 1)));
    if (name == "last-modified") t->lastModified = validUtf8(trim(line.substr(colon + 1)));
    return size * count;
}

struct CurlDeleter {
    void operator()(CURL* c) const { libcurl().curl_easy_cleanup(c); }
};
struct SlistDeleter {
    void operator()(curl_slist* l) const { libcurl().curl_slist_free_all(l); }
};

}  // namespace

Expected<FetchedCalendar, std::string> fetchCalendar(const std::string& url, const FetchValidators& validators,
                                                     double timeoutSeconds) {
    if (auto loaded = http::curlLibrary(); !loaded) return unexpected(loaded.error());
    std::unique_ptr<CURL, CurlDeleter> curl(libcurl().curl_easy_init());
    if (!curl) return unexpected(std::string("could not start a download"));
    Transfer transfer;
    std::unique_ptr<curl_slist, SlistDeleter> headers;
    auto addHeader = [&](const std::string& h) { headers.reset(libcurl().curl_slist_append(headers.release(), h.c_str())); };
    addHeader("Accept: text/calendar, */*;q=0.5");
    if (!validators.etag.empty()) addHeader("If-None-Match: " + validators.etag);
    if (!validators.lastModified.empty()) addHeader("If-Modified-Since: " + validators.lastModified);

    CURL* c = curl.get();
    libcurl().curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    libcurl().curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    libcurl().curl_easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    libcurl().curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
    libcurl().curl_easy_setopt(c, CURLOPT_MAXREDIRS, kMaximumRedirects);
    libcurl().curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, static_cast<long>(timeoutSeconds * 1000));
    libcurl().curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(std::min(timeoutSeconds, 15.0) * 1000));
    libcurl().curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    libcurl().curl_easy_setopt(c, CURLOPT_ACCEPT_ENCODING, "");
    libcurl().curl_easy_setopt(c, CURLOPT_USERAGENT, "Vell calendar");
    libcurl().curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
    libcurl().curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, &onBody);
    libcurl().curl_easy_setopt(c, CURLOPT_WRITEDATA, &transfer);
    libcurl().curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, &onHeader);
    libcurl().curl_easy_setopt(c, CURLOPT_HEADERDATA, &transfer);
    libcurl().curl_easy_setopt(c, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaximumCalendarBytes));

    const CURLcode result = libcurl().curl_easy_perform(c);
    if (transfer.tooLarge || result == CURLE_FILESIZE_EXCEEDED) {
        return unexpected("the calendar is larger than " + std::to_string(kMaximumCalendarBytes / 1024 / 1024) + " MB");
    }
    if (result == CURLE_TOO_MANY_REDIRECTS) return unexpected(std::string("too many redirects"));
    if (result != CURLE_OK) return unexpected(std::string(libcurl().curl_easy_strerror(result)));
    long status = 0;
    libcurl().curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    if (status == 304) return FetchedCalendar{true, {}, validators.etag, validators.lastModified};
    if (status < 200 || status > 299) return unexpected("HTTP " + std::to_string(status));
    if (!looksLikeICalendar(transfer.body)) return unexpected(std::string("the address does not give a calendar"));
    return FetchedCalendar{false, std::move(transfer.body), transfer.etag, transfer.lastModified};
}

}  // namespace vell::calendar
