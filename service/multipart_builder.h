#pragma once
// A multipart/form-data body streamed into a temporary file ("upload-<UUID>.multipart" in
// the temporary directory) so that a recording is never held in memory. The file is
// removed when the builder goes away.
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "base/expected.h"

namespace vell::service {

inline constexpr size_t kMultipartCopyPiece = 1'048'576;

class MultipartBuilder {
public:
    static Expected<std::unique_ptr<MultipartBuilder>, std::error_code> create();
    ~MultipartBuilder();
    MultipartBuilder(const MultipartBuilder&) = delete;
    MultipartBuilder& operator=(const MultipartBuilder&) = delete;

    const std::string& boundary() const { return boundary_; }
    const std::filesystem::path& url() const { return url_; }

    // A text field; left out entirely when the value is empty.
    std::error_code addField(const std::string& name, const std::string& value);
    // The file's bytes, copied in pieces of 1 MiB.
    std::error_code addFile(const std::string& name, const std::string& fileName, const std::string& mimeType,
                            const std::filesystem::path& source);
    // The closing boundary; the body is complete and flushed afterwards.
    std::error_code finish();

private:
    MultipartBuilder(std::string boundary, std::filesystem::path url, int fd)
        : boundary_(std::move(boundary)), url_(std::move(url)), handle_(fd) {}
    std::error_code put(std::string_view bytes);

    std::string boundary_;
    std::filesystem::path url_;
    int handle_ = -1;
};

}  // namespace vell::service
