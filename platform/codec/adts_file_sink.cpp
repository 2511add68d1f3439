#include "platform/codec/adts_file_sink.h"

#include "audio/adts_frames.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vell::media {

namespace {

// Written out once this much is waiting: about two seconds of 128 kbit/s audio.
constexpr std::size_t kFlushThreshold = 32 * 1024;
// What is kept while the disk refuses writes before new frames are turned away: some
// minutes of audio, not the whole call in memory.
constexpr std::size_t kBacklogLimit = 8 * 1024 * 1024;

constexpr int kSamplingRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                  22050, 16000, 12000, 11025, 8000,  7350};

std::string systemError(const char* call, int code) { return std::string(call) + ": " + std::strerror(code); }

// Reads bits most significant first.
class BitReader {
public:
    BitReader(const std::uint8_t* data, std::size_t size) : data_(data), bits_(size * 8) {}
    bool has(std::size_t n) const { return at_ + n <= bits_; }
    unsigned take(int n) {
        unsigned value = 0;
        for (int i = 0; i < n; ++i, ++at_) value = (value << 1) | ((data_[at_ / 8] >> (7 - at_ % 8)) & 1u);
        return value;
    }

private:
    const std::uint8_t* data_;
    std::size_t bits_;
    std::size_t at_ = 0;
};

}  // namespace

Expected<AdtsStreamConfig, std::string> adtsConfigFor(const AVCodecContext& encoder) {
    int objectType = encoder.profile >= 0 ? encoder.profile + 1 : 2;
    int samplingIndex = -1;
    int channelConfiguration = -1;
    if (encoder.extradata && encoder.extradata_size >= 2) {
        BitReader bits(encoder.extradata, static_cast<std::size_t>(encoder.extradata_size));
        objectType = static_cast<int>(bits.take(5));
        if (objectType == 31 && bits.has(6)) objectType = 32 + static_cast<int>(bits.take(6));
        if (bits.has(4)) samplingIndex = static_cast<int>(bits.take(4));
        if (samplingIndex == 15) samplingIndex = -1;  // an explicit rate: look it up below
        else if (samplingIndex >= 0 && bits.has(4)) channelConfiguration = static_cast<int>(bits.take(4));
    }
    if (samplingIndex < 0) {
        for (int i = 0; i < int(std::size(kSamplingRates)); ++i) {
            if (kSamplingRates[i] == encoder.sample_rate) samplingIndex = i;
        }
    }
    if (channelConfiguration < 0) {
        const int channels = encoder.ch_layout.nb_channels;
        channelConfiguration = channels >= 1 && channels <= 6 ? channels : channels == 8 ? 7 : 0;
    }
    if (objectType < 1 || objectType > 4) {
        return unexpected("ADTS cannot carry AAC object type " + std::to_string(objectType));
    }
    if (samplingIndex < 0 || samplingIndex >= int(std::size(kSamplingRates))) {
        return unexpected("ADTS has no sampling frequency index for " + std::to_string(encoder.sample_rate) + " Hz");
    }
    if (channelConfiguration < 1 || channelConfiguration > 7) {
        return unexpected("ADTS has no channel configuration for " + std::to_string(encoder.ch_layout.nb_channels) +
                          " channels");
    }
    return AdtsStreamConfig{objectType - 1, samplingIndex, channelConfiguration};
}

std::array<std::uint8_t, kAdtsHeaderSize> adtsHeader(const AdtsStreamConfig& config, std::size_t payloadSize) {
    const unsigned length = static_cast<unsigned>(payloadSize + kAdtsHeaderSize);
    const unsigned fullness = 0x7FF;
    const unsigned profile = static_cast<unsigned>(config.profile);
    const unsigned index = static_cast<unsigned>(config.samplingIndex);
    const unsigned channels = static_cast<unsigned>(config.channelConfiguration);
    return {
        0xFF,
        0xF1,  // sync, MPEG-4, layer 0, no CRC
        static_cast<std::uint8_t>((profile << 6) | (index << 2) | (channels >> 2)),
        static_cast<std::uint8_t>(((channels & 3) << 6) | (length >> 11)),
        static_cast<std::uint8_t>((length >> 3) & 0xFF),
        static_cast<std::uint8_t>(((length & 7) << 5) | (fullness >> 6)),
        static_cast<std::uint8_t>((fullness & 0x3F) << 2),  // one raw data block
    };
}

Expected<std::unique_ptr<AdtsFileSink>, std::string> AdtsFileSink::create(const std::filesystem::path& path,
                                                                          const AVCodecContext& encoder) {
    auto config = adtsConfigFor(encoder);
    if (!config) return unexpected(config.error());
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return unexpected(systemError("open", errno));
    std::unique_ptr<AdtsFileSink> sink(new AdtsFileSink(fd, *config));
    sink->buffer_.reserve(kFlushThreshold + 4096);
    return sink;
}

AdtsFileSink::~AdtsFileSink() {
    if (fd_ >= 0) {
        (void)drain();
        ::close(fd_);
    }
}

Expected<Unit, std::string> AdtsFileSink::write(AVPacket& packet) {
    if (fd_ < 0) return unexpected(std::string("the file is closed"));
    if (packet.size <= 0) return Unit{};
    const auto payload = static_cast<std::size_t>(packet.size);
    if (payload + kAdtsHeaderSize > kAdtsMaxFrameSize) {
        return unexpected("an encoded frame of " + std::to_string(payload) + " bytes does not fit an ADTS frame");
    }
    if (buffer_.size() >= kBacklogLimit) {
        // The disk has refused everything for minutes; try once more before turning the
        // frame away, so a disk that recovered takes the backlog and the new frame.
        auto drained = drain();
        if (!drained) return unexpected(drained.error() + " (audio is being dropped)");
    }
    const auto header = adtsHeader(config_, payload);
    buffer_.insert(buffer_.end(), header.begin(), header.end());
    buffer_.insert(buffer_.end(), packet.data, packet.data + payload);
    if (buffer_.size() >= kFlushThreshold) return drain();
    return Unit{};
}

Expected<Unit, std::string> AdtsFileSink::drain() {
    std::size_t done = 0;
    Expected<Unit, std::string> result = Unit{};
    while (done < buffer_.size()) {
        const ssize_t n = ::write(fd_, buffer_.data() + done, buffer_.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            result = unexpected(systemError("write", errno));
            break;
        }
        if (n == 0) {
            result = unexpected(systemError("write", EIO));
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    if (!result && done > 0) {
        // A full disk takes part of a frame: the file must end at a whole frame, or
        // decoders report the tail as invalid data. The cut frame stays in the buffer and
        // is written again once the disk takes it.
        const std::size_t whole = wholeAdtsBytes(buffer_.data(), done);
        if (whole < done) {
            const off_t end = static_cast<off_t>(written_ + whole);
            if (::ftruncate(fd_, end) != 0 || ::lseek(fd_, end, SEEK_SET) != end) {
                result = unexpected(result.error() + "; " + systemError("ftruncate", errno));
            }
            done = whole;
        }
    }
    written_ += done;
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(done));
    return result;
}

Expected<Unit, std::string> AdtsFileSink::syncToDisk() {
    if (fd_ < 0) return unexpected(std::string("the file is closed"));
    auto drained = drain();
    if (!drained) return drained;
    // fdatasync covers the data and the size, which is all a reader of the file needs.
    while (::fdatasync(fd_) != 0) {
        if (errno != EINTR) return unexpected(systemError("fdatasync", errno));
    }
    // Writing on into a file someone deleted would lose the whole recording silently.
    struct stat status {};
    if (::fstat(fd_, &status) == 0 && status.st_nlink == 0) {
        return unexpected(std::string("the file was deleted while it was being written"));
    }
    return Unit{};
}

Expected<Unit, std::string> AdtsFileSink::finish() {
    if (fd_ < 0) return unexpected(std::string("the file is closed"));
    auto result = syncToDisk();
    const int fd = fd_;
    fd_ = -1;
    buffer_.clear();
    buffer_.shrink_to_fit();
    if (::close(fd) != 0 && result) result = unexpected(systemError("close", errno));
    return result;
}

}  // namespace vell::media
