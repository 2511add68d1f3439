#pragma once
// Small cryptographic helpers over libsodium and OpenSSL.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace vell::devserver::crypto {

// Initialises libsodium; call once before anything else here.
bool initialize();

// `bytes` random bytes as lower-case hex.
std::string randomHex(size_t bytes);

std::string sha256Hex(std::string_view data);
// SHA-256 of a file, read in 1 MiB pieces; nothing when it cannot be read.
std::optional<std::string> sha256File(const std::filesystem::path& path);

// Argon2id through crypto_pwhash_str, with limits small enough for a test service.
std::string hashPassword(std::string_view password);
bool verifyPassword(const std::string& hash, std::string_view password);

// Constant-time equality.
bool equal(std::string_view a, std::string_view b);

int64_t nowMs();

}  // namespace vell::devserver::crypto
