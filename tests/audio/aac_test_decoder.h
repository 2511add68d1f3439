#pragma once
// Decodes an audio file back with FFmpeg so tests judge what a player would hear, not
// file sizes. Also small signal helpers (tone energy, sine blocks).
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <cmath>
#include <filesystem>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "audio/pcm_buffer.h"

namespace vell::test {

struct DecodedAudio {
    bool ok = false;
    std::string error;
    std::string container;  // demuxer name: "aac" for ADTS, "mov,mp4,m4a,3gp,3g2,mj2" for MPEG-4
    std::string codec;
    int sampleRate = 0;
    int channels = 0;
    std::vector<std::vector<float>> samples;  // per channel

    std::size_t frames() const { return samples.empty() ? 0 : samples[0].size(); }
    double seconds() const { return sampleRate ? double(frames()) / sampleRate : 0; }
};

inline DecodedAudio decodeAudioFile(const std::filesystem::path& path) {
    DecodedAudio out;
    AVFormatContext* format = nullptr;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0) {
        out.error = "cannot open";
        return out;
    }
    std::unique_ptr<AVFormatContext*, void (*)(AVFormatContext**)> formatGuard(&format, avformat_close_input);
    if (avformat_find_stream_info(format, nullptr) < 0) {
        out.error = "no stream info";
        return out;
    }
    const AVCodec* codec = nullptr;
    int index = av_find_best_stream(format, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
    if (index < 0 || !codec) {
        out.error = "no audio stream";
        return out;
    }
    AVCodecContext* ctx = avcodec_alloc_context3(codec);
    std::unique_ptr<AVCodecContext*, void (*)(AVCodecContext**)> ctxGuard(&ctx, avcodec_free_context);
    avcodec_parameters_to_context(ctx, format->streams[index]->codecpar);
    if (avcodec_open2(ctx, codec, nullptr) < 0) {
        out.error = "cannot open decoder";
        return out;
    }
    out.container = format->iformat->name;
    out.codec = codec->name;
    out.sampleRate = ctx->sample_rate;
    out.channels = ctx->ch_layout.nb_channels;
    out.samples.resize(static_cast<std::size_t>(out.channels));
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    auto receive = [&] {
        while (avcodec_receive_frame(ctx, frame) >= 0) {
            for (int c = 0; c < out.channels; ++c) {
                if (frame->format == AV_SAMPLE_FMT_FLTP) {
                    auto* data = reinterpret_cast<const float*>(frame->extended_data[c]);
                    out.samples[c].insert(out.samples[c].end(), data, data + frame->nb_samples);
                } else if (frame->format == AV_SAMPLE_FMT_FLT) {
                    auto* data = reinterpret_cast<const float*>(frame->data[0]);
                    for (int i = 0; i < frame->nb_samples; ++i) out.samples[c].push_back(data[i * out.channels + c]);
                }
            }
            av_frame_unref(frame);
        }
    };
    while (av_read_frame(format, packet) >= 0) {
        if (packet->stream_index == index && avcodec_send_packet(ctx, packet) >= 0) receive();
        av_packet_unref(packet);
    }
    avcodec_send_packet(ctx, nullptr);
    receive();
    av_packet_free(&packet);
    av_frame_free(&frame);
    out.ok = true;
    return out;
}

// Energy of one frequency in a stretch of samples (Goertzel), normalised by length.
inline double toneEnergy(const std::vector<float>& x, double rate, double hz, std::size_t from = 0,
                         std::size_t count = SIZE_MAX) {
    const std::size_t end = std::min(x.size(), count == SIZE_MAX ? x.size() : from + count);
    const double w = 2 * std::numbers::pi * hz / rate;
    const double k = 2 * std::cos(w);
    double s1 = 0, s2 = 0;
    for (std::size_t i = from; i < end; ++i) {
        double s = x[i] + k * s1 - s2;
        s2 = s1;
        s1 = s;
    }
    const double power = s1 * s1 + s2 * s2 - k * s1 * s2;
    const double n = double(end > from ? end - from : 1);
    return power / (n * n);
}

inline double rmsOf(const std::vector<float>& x, std::size_t from = 0, std::size_t count = SIZE_MAX) {
    const std::size_t end = std::min(x.size(), count == SIZE_MAX ? x.size() : from + count);
    double sum = 0;
    for (std::size_t i = from; i < end; ++i) sum += double(x[i]) * x[i];
    return end > from ? std::sqrt(sum / double(end - from)) : 0;
}

// A block of a sine tone (same on every channel), continuing at sample `offset`.
inline std::shared_ptr<audio::PcmBuffer> sineBlock(double rate, int channels, std::size_t frames, double hz,
                                                   float amplitude, std::size_t offset = 0) {
    auto b = audio::PcmBuffer::make(rate, channels, frames);
    for (std::size_t i = 0; i < frames; ++i) {
        const float v = amplitude * float(std::sin(2 * std::numbers::pi * hz * double(offset + i) / rate));
        for (auto& plane : b->channels) plane[i] = v;
    }
    return b;
}

inline std::shared_ptr<audio::PcmBuffer> constantBlock(double rate, int channels, std::size_t frames, float value) {
    auto b = audio::PcmBuffer::make(rate, channels, frames);
    for (auto& plane : b->channels) std::fill(plane.begin(), plane.end(), value);
    return b;
}

}  // namespace vell::test
