#include "devserver/crypto.h"

#include <openssl/evp.h>
#include <sodium.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <vector>

namespace vell::devserver::crypto {

namespace {
// Argon2id with 8 MiB: a login must not dominate the server's memory (its peak is
// measured during large uploads) and tests create many accounts.
constexpr unsigned long long kOpsLimit = 3;
constexpr size_t kMemLimit = 8u << 20;

std::string hex(const unsigned char* data, size_t size) {
    std::string out(size * 2 + 1, '\0');
    sodium_bin2hex(out.data(), out.size(), data, size);
    out.pop_back();
    return out;
}

struct DigestDeleter {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
}  // namespace

bool initialize() { return sodium_init() >= 0; }

std::string randomHex(size_t bytes) {
    std::vector<unsigned char> buffer(bytes);
    randombytes_buf(buffer.data(), buffer.size());
    return hex(buffer.data(), buffer.size());
}

std::string sha256Hex(std::string_view data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha256(), nullptr);
    return hex(digest, length);
}

std::optional<std::string> sha256File(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::unique_ptr<EVP_MD_CTX, DigestDeleter> ctx(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) return std::nullopt;
    std::vector<char> buffer(1 << 20);
    while (in) {
        in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        if (in.gcount() > 0) EVP_DigestUpdate(ctx.get(), buffer.data(), static_cast<size_t>(in.gcount()));
    }
    if (in.bad()) return std::nullopt;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(ctx.get(), digest, &length);
    return hex(digest, length);
}

std::string hashPassword(std::string_view password) {
    char out[crypto_pwhash_STRBYTES];
    if (crypto_pwhash_str(out, password.data(), password.size(), kOpsLimit, kMemLimit) != 0) {
        throw std::runtime_error("out of memory while hashing a password");
    }
    return out;
}

bool verifyPassword(const std::string& hash, std::string_view password) {
    return crypto_pwhash_str_verify(hash.c_str(), password.data(), password.size()) == 0;
}

bool equal(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    return a.empty() || sodium_memcmp(a.data(), b.data(), a.size()) == 0;
}

int64_t nowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

}  // namespace vell::devserver::crypto
