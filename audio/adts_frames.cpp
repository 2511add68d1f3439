#include "audio/adts_frames.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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

// The header fields every frame of one stream shares: version, layer, profile, sampling
// rate and channels. Only frames that match the first one.
bool sameStream(const std::uint8_t* a, const std::uint8_t* b) {
    return a[1] == b[1] && (a[2] & 0xFD) == (b[2] & 0xFD) && (a[3] & 0xC0) == (b[3] & 0xC0);
}


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
    std::uint8_t first[kHeaderSize] = {};
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
        if (extent.frames == 0) {
            extent.sampleRate = sampleRateOf(header);
            std::copy(header, header + kHeaderSize, first);
        } else if (!sameStream(first, header)) {
            break;
        }
        at += length;
        ++extent.frames;
    }
    extent.wholeBytes = at;
    return extent;
}

// Reads exactly size bytes at offset; false at the end of the file or on an error.
bool readAt(int fd, std::uint8_t* data, std::size_t size, std::uint64_t offset, std::error_code& error) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::pread(fd, data + done, size - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) error = lastError();
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool writeAt(int fd, const std::uint8_t* data, std::size_t size, std::uint64_t offset, std::error_code& error) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::pwrite(fd, data + done, size - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            error = lastError();
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Frame length at `at` when a frame of the stream starts there and the chain goes on: the
// next header follows it, or the file ends with it or with less than a header after it.
// Without a first frame yet, the frame found is the stream's reference.
std::size_t chainedFrameAt(int fd, std::uint64_t at, std::uint64_t fileBytes, const std::uint8_t* first,
                           std::error_code& error) {
    std::uint8_t header[kHeaderSize];
    if (at + kHeaderSize > fileBytes || !readAt(fd, header, kHeaderSize, at, error)) return 0;
    if (!first) first = header;
    const std::size_t length = frameLength(header);
    if (length == 0 || !sameStream(first, header) || at + length > fileBytes) return 0;
    const std::uint64_t next = at + length;
    if (next + kHeaderSize > fileBytes) return length;
    std::uint8_t following[kHeaderSize];
    if (!readAt(fd, following, kHeaderSize, next, error)) return 0;
    return frameLength(following) != 0 && sameStream(first, following) ? length : 0;
}

// Keeps every good frame and drops the damaged bytes between them, moving the frames
// after a damaged stretch forward in place (a full disk has no room for a copy); the file
// ends after the last whole frame. A crash in the middle leaves some frames twice, which
// the next repair keeps: nothing good is lost.
// The walk starts over from the first frame: a damaged length can make a frame appear to
// swallow the good frames after it, which only the chain check tells.
AdtsExtent repair(int fd, AdtsExtent extent, std::error_code& error) {
    std::uint8_t firstBytes[kHeaderSize] = {};
    const std::uint8_t* first = nullptr;
    if (extent.frames > 0 && readAt(fd, firstBytes, kHeaderSize, 0, error)) first = firstBytes;
    if (error) return extent;
    extent.frames = 0;
    std::uint64_t read = 0;   // where the walk stands
    std::uint64_t write = 0;  // where the next good frame goes
    std::vector<std::uint8_t> buffer(1 << 16);
    // Where the next chain of frames starts after `from`; the end of the file without one.
    auto nextChain = [&](std::uint64_t from) {
        while (!error && from + kHeaderSize <= extent.fileBytes) {
            const std::size_t piece = std::min<std::uint64_t>(buffer.size(), extent.fileBytes - from);
            if (!readAt(fd, buffer.data(), piece, from, error)) break;
            for (std::size_t i = 0; i + 1 < piece; ++i) {
                if (buffer[i] == 0xFF && (buffer[i + 1] & 0xF6) == 0xF0 &&
                    chainedFrameAt(fd, from + i, extent.fileBytes, first, error) != 0) {
                    return from + i;
                }
            }
            from += piece - 1;
        }
        return extent.fileBytes;
    };
    while (!error && read + kHeaderSize <= extent.fileBytes) {
        std::size_t length = chainedFrameAt(fd, read, extent.fileBytes, first, error);
        std::uint64_t resync = 0;
        if (length == 0) {
            // The chain breaks here. A frame whose own header is sound is kept when no chain
            // starts inside it (the damage is in the next header); otherwise its length is
            // what is damaged, and the bytes up to the next chain go.
            std::uint8_t header[kHeaderSize];
            resync = nextChain(read + 1);
            if (readAt(fd, header, kHeaderSize, read, error)) {
                const std::size_t own = frameLength(header);
                const bool sound = own != 0 && (!first || sameStream(first, header)) && read + own <= extent.fileBytes;
                if (sound && read + own <= resync) length = own;
            }
        }
        if (length == 0) {
            read = resync;
            continue;
        }
        if (!first) {
            if (!readAt(fd, firstBytes, kHeaderSize, read, error)) break;
            first = firstBytes;
            extent.sampleRate = sampleRateOf(firstBytes);
        }
        if (write != read) {
            std::vector<std::uint8_t> frame(length);
            if (!readAt(fd, frame.data(), length, read, error) || !writeAt(fd, frame.data(), length, write, error)) break;
        }
        read += length;
        write += length;
        ++extent.frames;
    }
    if (error) return extent;
    if (::ftruncate(fd, static_cast<off_t>(write)) != 0) {
        error = lastError();
        return extent;
    }
    ::fdatasync(fd);
    extent.wholeBytes = write;
    extent.fileBytes = write;
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
    const int fd = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        error = lastError();
        return {};
    }
    struct stat st {};
    AdtsExtent extent;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        error = S_ISREG(st.st_mode) ? lastError() : std::make_error_code(std::errc::invalid_argument);
    } else {
        extent = measure(fd, error);
        if (!error && extent.startsWithSync && extent.wholeBytes < extent.fileBytes) extent = repair(fd, extent, error);
    }
    ::close(fd);
    return extent;
}

}  // namespace vell::media
