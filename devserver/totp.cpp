#include "devserver/totp.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <cctype>
#include <cstdio>

#include "devserver/crypto.h"

namespace vell::devserver::totp {

namespace {
constexpr int64_t kStepSeconds = 30;
}

std::optional<std::string> decodeBase32(std::string_view text) {
    std::string out;
    uint32_t buffer = 0;
    int bits = 0;
    for (char c : text) {
        if (c == ' ' || c == '-' || c == '=') continue;
        char u = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        int value;
        if (u >= 'A' && u <= 'Z') {
            value = u - 'A';
        } else if (u >= '2' && u <= '7') {
            value = u - '2' + 26;
        } else {
            return std::nullopt;
        }
        buffer = (buffer << 5) | static_cast<uint32_t>(value);
        bits += 5;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<char>((buffer >> bits) & 0xFF));
        }
    }
    if (out.empty()) return std::nullopt;
    return out;
}

std::string code(std::string_view key, uint64_t counter, int digits) {
    unsigned char message[8];
    for (int i = 7; i >= 0; --i) {
        message[i] = static_cast<unsigned char>(counter & 0xFF);
        counter >>= 8;
    }
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int macLength = 0;
    HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), message, sizeof message, mac, &macLength);
    int offset = mac[macLength - 1] & 0x0F;
    uint32_t binary = (static_cast<uint32_t>(mac[offset] & 0x7F) << 24) | (static_cast<uint32_t>(mac[offset + 1]) << 16) |
                      (static_cast<uint32_t>(mac[offset + 2]) << 8) | static_cast<uint32_t>(mac[offset + 3]);
    uint32_t modulus = 1;
    for (int i = 0; i < digits; ++i) modulus *= 10;
    char text[16];
    std::snprintf(text, sizeof text, "%0*u", digits, binary % modulus);
    return text;
}

std::string codeAt(std::string_view key, int64_t unixSeconds) {
    return code(key, static_cast<uint64_t>(unixSeconds / kStepSeconds));
}

bool verify(std::string_view key, std::string_view candidate, int64_t unixSeconds) {
    if (candidate.size() != 6) return false;
    const int64_t step = unixSeconds / kStepSeconds;
    bool matched = false;
    // Every window is computed, so the time taken does not tell which one matched.
    for (int64_t s = step - 1; s <= step + 1; ++s) {
        if (s >= 0 && crypto::equal(code(key, static_cast<uint64_t>(s)), candidate)) matched = true;
    }
    return matched;
}

}  // namespace vell::devserver::totp
