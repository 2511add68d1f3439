#pragma once
// Whether bytes are well-formed UTF-8: a name that is not cannot go on the bus or into JSON.
#include <cstddef>
#include <string_view>

namespace vell::text {

inline bool isValidUtf8(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size()) {
        const auto c = static_cast<unsigned char>(s[i]);
        std::size_t extra = 0;
        unsigned min = 0;
        unsigned code = 0;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            extra = 1, min = 0x80, code = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            extra = 2, min = 0x800, code = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            extra = 3, min = 0x10000, code = c & 0x07;
        } else {
            return false;
        }
        if (s.size() - i <= extra) return false;
        for (std::size_t k = 1; k <= extra; ++k) {
            const auto d = static_cast<unsigned char>(s[i + k]);
            if ((d & 0xC0) != 0x80) return false;
            code = (code << 6) | (d & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
        if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
        i += extra + 1;
    }
    return true;
}

}  // namespace vell::text
