#pragma once
// The AAC encoder behind every file we write: libavcodec's native "aac" in its fast coder,
// fed through a FIFO in whole 1024-frame blocks, converting input of another rate or
// channel count first. Encoded packets go to one AacPacketSink.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/expected.h"

struct AVAudioFifo;
struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace vell::media {

class AacPacketSink;
class Resampler;

struct AacEncoderSettings {
    int sampleRate = 44100;
    int channels = 2;
    std::optional<int> bitRate;
    // The decoder configuration goes into the container's header (MPEG-4) instead of
    // travelling with every packet (ADTS).
    bool globalHeader = false;
};

class AacEncoder {
public:
    // Errors are reasons without a file name.
    static Expected<std::unique_ptr<AacEncoder>, std::string> open(const AacEncoderSettings& settings);
    ~AacEncoder();
    AacEncoder(const AacEncoder&) = delete;
    AacEncoder& operator=(const AacEncoder&) = delete;

    // What the sinks describe their stream from: profile, rate, channel layout, extradata.
    const AVCodecContext& context() const { return *codec_; }

    // Accepts planar float samples, converting them to the encoder's format when needed,
    // and passes every complete packet to `sink`.
    Expected<Unit, std::string> write(const float* const* planes, int channels, std::size_t frames, int sampleRate,
                                      AacPacketSink& sink);
    // Encodes what the converter and the FIFO still hold (the last block shorter) and the
    // encoder's delayed packets. Further writes fail.
    Expected<Unit, std::string> flush(AacPacketSink& sink);

    // Frames accepted so far, at the encoder's rate.
    std::int64_t framesAccepted() const { return framesAccepted_; }

private:
    AacEncoder() = default;
    Expected<Unit, std::string> queue(const float* const* planes, std::size_t frames, AacPacketSink& sink);
    Expected<Unit, std::string> encodeFromFifo(int samples, AacPacketSink& sink);
    Expected<Unit, std::string> sendAndDrain(AVFrame* frame, AacPacketSink& sink);

    AacEncoderSettings settings_;
    AVCodecContext* codec_ = nullptr;
    AVAudioFifo* fifo_ = nullptr;
    AVFrame* frame_ = nullptr;
    AVPacket* packet_ = nullptr;
    int frameSize_ = 1024;
    std::int64_t nextPts_ = 0;
    std::int64_t framesAccepted_ = 0;
    bool flushed_ = false;
    std::unique_ptr<Resampler> resampler_;
    std::vector<std::vector<float>> converted_;
    std::vector<const float*> pointers_;
};

}  // namespace vell::media
