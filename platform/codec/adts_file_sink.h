#pragma once
// Raw AAC frames, each behind its 7-byte ADTS header, written through our own buffer to a
// plain descriptor. Every frame stands alone, so a file cut anywhere still plays up to its
// last whole frame.
#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/codec/aac_packet_sink.h"

namespace vell::media {

// What every header of a stream repeats.
struct AdtsStreamConfig {
    int profile = 1;              // audio object type minus one: 1 is AAC LC
    int samplingIndex = 4;        // 44100 Hz
    int channelConfiguration = 2;
};

// The stream configuration from the encoder's AudioSpecificConfig (or, without one, from
// its rate and channel count). Fails for what ADTS cannot describe.
Expected<AdtsStreamConfig, std::string> adtsConfigFor(const AVCodecContext& encoder);

constexpr std::size_t kAdtsHeaderSize = 7;
// The header of one frame carrying `payloadSize` bytes of raw AAC (no CRC, one raw data
// block, buffer fullness 0x7FF: variable bit rate).
std::array<std::uint8_t, kAdtsHeaderSize> adtsHeader(const AdtsStreamConfig& config, std::size_t payloadSize);
// The largest frame the 13-bit length field can describe, header included.
constexpr std::size_t kAdtsMaxFrameSize = 0x1FFF;

class AdtsFileSink final : public AacPacketSink {
public:
    // Creates (truncates) the file.
    static Expected<std::unique_ptr<AdtsFileSink>, std::string> create(const std::filesystem::path& path,
                                                                       const AVCodecContext& encoder);
    ~AdtsFileSink() override;

    Expected<Unit, std::string> write(AVPacket& packet) override;
    Expected<Unit, std::string> syncToDisk() override;
    Expected<Unit, std::string> finish() override;

private:
    AdtsFileSink(int fd, AdtsStreamConfig config) : fd_(fd), config_(config) {}
    // Writes the buffer out; on failure keeps what the kernel did not take, so nothing
    // already encoded is lost if the disk recovers.
    Expected<Unit, std::string> drain();

    int fd_ = -1;
    AdtsStreamConfig config_;
    std::uint64_t written_ = 0;  // bytes in the file: whole frames only
    std::vector<std::uint8_t> buffer_;
};

}  // namespace vell::media
