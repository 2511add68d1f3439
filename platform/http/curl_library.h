#pragma once
// libcurl, loaded on the first transfer rather than linked: linking it maps its TLS,
// Kerberos, LDAP, SSH and RTMP libraries (some forty, and GnuTLS sets itself up as it
// loads) into every start of the programs, a sixth of an idle tray's memory, for work that
// begins with the first request to a server.
#include <curl/curl.h>

#include <string>

#include "base/expected.h"

namespace vell::http {

// Every entry point the http and calendar bindings call.
#define VELL_CURL_FUNCTIONS(X) \
    X(curl_global_init)        \
    X(curl_easy_init)          \
    X(curl_easy_cleanup)       \
    X(curl_easy_setopt)        \
    X(curl_easy_perform)       \
    X(curl_easy_getinfo)       \
    X(curl_easy_strerror)      \
    X(curl_free)               \
    X(curl_slist_append)       \
    X(curl_slist_free_all)     \
    X(curl_share_init)         \
    X(curl_share_setopt)       \
    X(curl_share_cleanup)      \
    X(curl_url)                \
    X(curl_url_set)            \
    X(curl_url_get)            \
    X(curl_url_cleanup)

// Members carry the functions' own names, so a call reads `libcurl().curl_easy_perform(h)`.
struct CurlLibrary {
#define VELL_CURL_SLOT(name) decltype(&::name) name = nullptr;
    VELL_CURL_FUNCTIONS(VELL_CURL_SLOT)
#undef VELL_CURL_SLOT
};

// The soname of libcurl's ABI since 7.16 (the headers' major version is curl's own, 7 or 8).
inline constexpr const char* kCurlSoname = "libcurl.so.4";

// Loads libcurl once per process (safe from any thread), runs its global set-up and keeps
// it loaded; every later call returns the same table or the same error.
Expected<const CurlLibrary*, std::string> curlLibrary();

// The loaded table, for code that runs only after curlLibrary() succeeded. Throws
// std::logic_error when libcurl was never loaded.
const CurlLibrary& libcurl();

}  // namespace vell::http
