#include "platform/http/curl_library.h"

#include <dlfcn.h>

#include <stdexcept>

namespace vell::http {

namespace {

Expected<CurlLibrary, std::string> load() {
    // RTLD_LOCAL keeps its symbols, and those of the TLS libraries it brings, out of the
    // global scope.
    void* handle = ::dlopen(kCurlSoname, RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* why = ::dlerror();
        return unexpected(std::string("cannot load ") + kCurlSoname + (why ? std::string(" (") + why + ")" : ""));
    }
    CurlLibrary lib;
    std::string missing;
#define VELL_CURL_RESOLVE(name)                                               \
    lib.name = reinterpret_cast<decltype(lib.name)>(::dlsym(handle, #name)); \
    if (!lib.name && missing.empty()) missing = #name;
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
