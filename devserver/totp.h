#pragma once
// Time-based one-time passwords (RFC 6238: HMAC-SHA1, 30 s steps, 6 digits) over secrets
// written in base32 (RFC 4648), as authenticator apps show them.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vell::devserver::totp {

// Decodes base32, ignoring case, blanks, hyphens and '=' padding; nothing on other input.
std::optional<std::string> decodeBase32(std::string_view text);

// The code of one time step (counter) as six digits.
std::string code(std::string_view key, uint64_t counter, int digits = 6);

// The code for a moment in Unix seconds.
std::string codeAt(std::string_view key, int64_t unixSeconds);

// True when `code` matches the step of `unixSeconds` or one step before or after (clock
// drift between the phone and the server).
bool verify(std::string_view key, std::string_view code, int64_t unixSeconds);

}  // namespace vell::devserver::totp
