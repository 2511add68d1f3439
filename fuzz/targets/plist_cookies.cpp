// The cookie snapshot: a binary property list from disk, decoded, and what decoded encoded
// again and read back. The count may differ (a name or domain that is not UTF-8 does not
// survive the text encoding), so only crashes and sanitizer reports count.
#include "fuzz_support.h"
#include "platform/http/plist_cookies.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string bytes(reinterpret_cast<const char*>(data), size);
    if (auto cookies = vell::plist::decodeCookies(bytes)) {
        (void)vell::plist::decodeCookies(vell::plist::encodeCookies(*cookies));
    }
    return 0;
}
