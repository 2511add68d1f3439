#include "audio/adts_frames.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace vell::media {

namespace {

constexpr std::size_t kHeaderSize = 7;
constexpr int kSamplingRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                  22050, 16000, 12000, 11025, 8000,  7350};

// The frame length a header names, or 0 when the bytes are not a header.
std::size_t frameLength(const std::uint8_t* h) {
    if (h[0] != 0xFF || (h[1] & 0xF6) != 0xF0) return 0;  // sync word, layer 0
    const std::size_t length = (std::size_t(h[3] & 0x03) << 11) | (std::size_t(h[4]) << 3) | (h[5] >> 5);
    return length >= kHeaderSize ? length : 0;
}

int sampleRateOf(const std::uint8_t* h) {
    const int index = (h[2] >> 2) & 0x0F;
    return index < int(std::size(kSamplingRates)) ? kSamplingRates[index] : 0;
}

std::error_code lastError() { return {errno, std::generic_category()}; }

AdtsExtent measure(int fd, std::error_code& error) {
    AdtsExtent extent;
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        error = lastError();
        return extent;
    }
    extent.fileBytes = static_cast<std::uint64_t>(st.st_size);
    std::uint8_t header[kHeaderSize];
    std::uint8_t sync[2] = {0, 0};
    extent.startsWithSync = extent.fileBytes == 0 || (extent.fileBytes >= 2 && ::pread(fd, sync, 2, 0) == 2 &&
                                                      sync[0] == 0xFF && (sync[1] & 0xF6) == 0xF0);
    if (extent.fileBytes == 1) extent.startsWithSync = ::pread(fd, sync, 1, 0) == 1 && sync[0] == 0xFF;
    std::uint64_t at = 0;
    while (at + kHeaderSize <= extent.fileBytes) {
        const ssize_t n = ::pread(fd, header, kHeaderSize, static_cast<off_t>(at));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            error = lastError();
            break;
        }
        if (n != ssize_t(kHeaderSize)) break;
        const std::size_t length = frameLength(header);
        if (length == 0 || at + length > extent.fileBytes) break;
        if (extent.frames == 0) extent.sampleRate = sampleRateOf(header);
        at += length;
        ++extent.frames;
    }
    extent.wholeBytes = at;
    return extent;
}

}  // namespace

std::size_t wholeAdtsBytes(const std::uint8_t* data, std::size_t size) {
    std::size_t at = 0;
    while (at + kHeaderSize <= size) {
        const std::size_t length = frameLength(data + at);
        if (length == 0 || at + length > size) break;
        at += length;
    }
    return at;
}

AdtsExtent measureAdtsFile(const std::filesystem::path& path, std::error_code& error) {
    error.clear();
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = lastError();
        return {};
    }
    auto extent = measure(fd, error);
    ::close(fd);
    return extent;
}

AdtsExtent trimAdtsFile(const std::filesystem::path& path, std::error_code& error) {
    error.clear();
    const int fd = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        error = lastError();
        return {};
    }
    auto extent = measure(fd, error);
    if (!error && extent.startsWithSync && extent.wholeBytes < extent.fileBytes) {
        if (::ftruncate(fd, static_cast<off_t>(extent.wholeBytes)) == 0) {
            ::fdatasync(fd);
            extent.fileBytes = extent.wholeBytes;
        } else {
            error = lastError();
        }
    }
    ::close(fd);
    return extent;
}

}  // namespace vell::media
