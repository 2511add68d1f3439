#include "platform/http/curl_library.h"

#include <stdexcept>

#include "base/shared_library.h"

namespace vell::http {

namespace {

Expected<CurlLibrary, std::string> load() {
    auto opened = shared_library::open(kCurlSoname);
    if (!opened) return unexpected(opened.error());
    void* handle = *opened;
    CurlLibrary lib;
    std::string missing;
#define VELL_CURL_RESOLVE(name) shared_library::resolve(handle, #name, lib.name, missing);
    VELL_CURL_FUNCTIONS(VELL_CURL_RESOLVE)
#undef VELL_CURL_RESOLVE
    // Never unloaded: its threads (the resolver) and TLS state live as long as the process.
    if (!missing.empty()) return unexpected(std::string(kCurlSoname) + " has no " + missing);
    if (const CURLcode code = lib.curl_global_init(CURL_GLOBAL_DEFAULT); code != CURLE_OK)
        return unexpected(std::string("libcurl could not set itself up: ") + lib.curl_easy_strerror(code));
    return lib;
}

const Expected<CurlLibrary, std::string>& loaded() {
    static const Expected<CurlLibrary, std::string> library = load();
    return library;
}

}  // namespace

Expected<const CurlLibrary*, std::string> curlLibrary() {
    const auto& library = loaded();
    if (!library) return unexpected(library.error());
    return &*library;
}

const CurlLibrary& libcurl() {
    const auto& library = loaded();
    if (!library) throw std::logic_error("libcurl used before it loaded: " + library.error());
    return *library;
}

}  // namespace vell::http
