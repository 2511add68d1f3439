#include "service/multipart_builder.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "base/files.h"
#include "base/private_folder.h"
#include "base/uuid.h"

namespace vell::service {

namespace {
constexpr std::string_view kCRLF = "\r\n";
std::error_code lastError() { return {errno, std::generic_category()}; }
}  // namespace

Expected<std::unique_ptr<MultipartBuilder>, std::error_code> MultipartBuilder::create() {
    std::string boundary = "vell-" + newUUIDString();
    // A copy of what is uploaded (a recording's audio): in Vell's private folder, never shared.
    auto folder = files::temporaryFolder();
    if (!folder) return unexpected(std::make_error_code(std::errc::permission_denied));
    auto url = *folder / ("upload-" + newUUIDString() + ".multipart");
    int fd = ::open(url.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return unexpected(lastError());
    return std::unique_ptr<MultipartBuilder>(new MultipartBuilder(std::move(boundary), std::move(url), fd));
}

MultipartBuilder::~MultipartBuilder() {
    if (handle_ >= 0) ::close(handle_);
    ::unlink(url_.c_str());
}

std::error_code MultipartBuilder::put(std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t n = ::write(handle_, bytes.data(), bytes.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return lastError();
        }
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return {};
}

std::error_code MultipartBuilder::addField(const std::string& name, const std::string& value) {
    if (value.empty()) return {};
    std::string head = "--" + boundary_ + std::string(kCRLF) + "Content-Disposition: form-data; name=\"" + name + "\"" +
                       std::string(kCRLF) + std::string(kCRLF) + value + std::string(kCRLF);
    return put(head);
}

std::error_code MultipartBuilder::addFile(const std::string& name, const std::string& fileName,
                                          const std::string& mimeType, const std::filesystem::path& source) {
    std::string head = "--" + boundary_ + std::string(kCRLF) + "Content-Disposition: form-data; name=\"" + name +
                       "\"; filename=\"" + fileName + "\"" + std::string(kCRLF) + "Content-Type: " + mimeType +
                       std::string(kCRLF) + std::string(kCRLF);
    if (auto e = put(head)) return e;
    std::error_code openError;
    int in = files::openRegular(source, O_RDONLY, /*followLinks=*/false, openError);
    if (in < 0) return openError;
    std::vector<char> piece(kMultipartCopyPiece);
    std::error_code result;
    for (;;) {
        ssize_t n = ::read(in, piece.data(), piece.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            result = lastError();
            break;
        }
        if (n == 0) break;
        if ((result = put({piece.data(), static_cast<size_t>(n)}))) break;
    }
    ::close(in);
    if (result) return result;
    return put(kCRLF);
}

std::error_code MultipartBuilder::finish() {
    if (auto e = put("--" + boundary_ + "--" + std::string(kCRLF))) return e;
    if (::fsync(handle_) != 0 && errno != EINVAL) return lastError();
    return {};
}

}  // namespace vell::service
