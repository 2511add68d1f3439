#include "devserver/file_sink.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sodium.h>
#include <unistd.h>

#include <cerrno>

namespace vell::devserver {

namespace {
constexpr size_t kBufferSize = 1 << 20;

bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}
}  // namespace

struct FileSink::Digest {
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    ~Digest() { EVP_MD_CTX_free(ctx); }
};

FileSink::FileSink() = default;
FileSink::~FileSink() { close(); }

bool FileSink::open(const std::filesystem::path& path, int64_t keepBytes) {
    close();
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) return false;
    if (::ftruncate(fd_, keepBytes) != 0 || ::lseek(fd_, keepBytes, SEEK_SET) < 0) {
        close();
        return false;
    }
    base_ = keepBytes;
    written_ = 0;
    buffer_.reserve(kBufferSize);
    return true;
}

void FileSink::computeDigest() {
    digest_ = std::make_unique<Digest>();
    EVP_DigestInit_ex(digest_->ctx, EVP_sha256(), nullptr);
}

bool FileSink::write(const char* data, size_t size) {
    if (fd_ < 0) return false;
    if (digest_) EVP_DigestUpdate(digest_->ctx, data, size);
    written_ += static_cast<int64_t>(size);
    while (size > 0) {
        size_t room = kBufferSize - buffer_.size();
        size_t take = size < room ? size : room;
        buffer_.insert(buffer_.end(), data, data + take);
        data += take;
        size -= take;
        if (buffer_.size() == kBufferSize && !flushBuffer()) return false;
    }
    return true;
}

bool FileSink::flushBuffer() {
    bool ok = writeAll(fd_, buffer_.data(), buffer_.size());
    buffer_.clear();
    return ok;
}

bool FileSink::sync() {
    if (fd_ < 0) return false;
    return flushBuffer() && ::fsync(fd_) == 0;
}

void FileSink::rollback() {
    if (fd_ < 0) return;
    buffer_.clear();
    if (::ftruncate(fd_, base_) == 0) ::fsync(fd_);
    written_ = 0;
}

void FileSink::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    std::vector<char>().swap(buffer_);
}

std::string FileSink::sha256Hex() {
    if (!digest_) return {};
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(digest_->ctx, digest, &length);
    std::string out(length * 2 + 1, '\0');
    sodium_bin2hex(out.data(), out.size(), digest, length);
    out.pop_back();
    return out;
}

void syncDirectory(const std::filesystem::path& dir) {
    int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

}  // namespace vell::devserver
