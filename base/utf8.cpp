#include "base/utf8.h"

namespace vell {

namespace {

// The length of the well-formed sequence at text[at], or 0 when there is none.
std::size_t sequenceAt(std::string_view text, std::size_t at) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(at);
    if (first < 0x80) return 1;
    std::size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;  // the allowed range of the second byte
    if (first >= 0xC2 && first <= 0xDF) length = 2;
    else if (first == 0xE0) length = 3, low = 0xA0;
    else if (first >= 0xE1 && first <= 0xEC) length = 3;
    else if (first == 0xED) length = 3, high = 0x9F;  // no surrogates
    else if (first >= 0xEE && first <= 0xEF) length = 3;
    else if (first == 0xF0) length = 4, low = 0x90;
    else if (first >= 0xF1 && first <= 0xF3) length = 4;
    else if (first == 0xF4) length = 4, high = 0x8F;  // nothing past U+10FFFF
    else return 0;
    if (at + length > text.size()) return 0;
    if (byte(at + 1) < low || byte(at + 1) > high) return 0;
    for (std::size_t i = 2; i < length; ++i) {
        if (byte(at + i) < 0x80 || byte(at + i) > 0xBF) return 0;
    }
    return length;
}

}  // namespace

bool isValidUtf8(std::string_view text) {
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t n = sequenceAt(text, at);
        if (n == 0) return false;
        at += n;
    }
    return true;
}

std::string validUtf8(std::string_view text) {
    if (isValidUtf8(text)) return std::string(text);
    std::string out;
    out.reserve(text.size() + 16);
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t n = sequenceAt(text, at);
        if (n == 0) {
            out += "\xEF\xBF\xBD";
            ++at;
        } else {
            out.append(text.substr(at, n));
            at += n;
        }
    }
    return out;
}

}  // namespace vell
