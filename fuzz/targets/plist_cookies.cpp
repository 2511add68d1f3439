// The cookie snapshot: a binary property list from disk, decoded, and what decoded encoded
// again and read back.
#include "fuzz_support.h"
#include "platform/http/plist_cookies.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string bytes(reinterpret_cast<const char*>(data), size);
    if (auto cookies = vell::plist::decodeCookies(bytes)) {
        auto again = vell::plist::decodeCookies(vell::plist::encodeCookies(*cookies));
        if (!again || again->size() != cookies->size()) __builtin_trap();
    }
    return 0;
}
