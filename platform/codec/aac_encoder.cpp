#include "platform/codec/aac_encoder.h"
#include "platform/codec/ffmpeg_library.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <mutex>

#include "platform/codec/aac_packet_sink.h"
#include "platform/codec/resampler.h"

namespace vell::media {

namespace {

Unexpected<std::string> fail(const char* call, int code) {
    return unexpected(std::string(call) + ": " + ffmpegErrorText(code));
}

// The FIFO only reads from the planes it is given, but its signature is not const.
void** fifoPlanes(const float* const* planes) { return reinterpret_cast<void**>(const_cast<float**>(planes)); }

}  // namespace

Expected<std::unique_ptr<AacEncoder>, std::string> AacEncoder::open(const AacEncoderSettings& settings) {
    if (auto library = ffmpegLibrary(); !library) return unexpected(library.error());
    static std::once_flag quiet;
    // The library's own chatter (encoder statistics) is not for our users.
    std::call_once(quiet, [] { ff().av_log_set_level(AV_LOG_ERROR); });

    std::unique_ptr<AacEncoder> encoder(new AacEncoder);
    encoder->settings_ = settings;
    const AVCodec* codec = ff().avcodec_find_encoder_by_name("aac");
    if (!codec) return unexpected(std::string("the AAC encoder is not available"));
    AVCodecContext* ctx = encoder->codec_ = ff().avcodec_alloc_context3(codec);
    if (!ctx) return fail("avcodec_alloc_context3", AVERROR(ENOMEM));
    ctx->sample_fmt = AV_SAMPLE_FMT_FLTP;
    ctx->sample_rate = settings.sampleRate;
    ff().av_channel_layout_default(&ctx->ch_layout, settings.channels);
    if (settings.bitRate) ctx->bit_rate = *settings.bitRate;
    ctx->time_base = AVRational{1, settings.sampleRate};
    if (settings.globalHeader) ctx->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    // The default two-loop search costs about twice the CPU for a difference nobody hears
    // in speech at these bit rates; a recorder that runs for hours beside a call must stay
    // light.
    AVDictionary* options = nullptr;
    ff().av_dict_set(&options, "aac_coder", "fast", 0);
    int rc = ff().avcodec_open2(ctx, codec, &options);
    ff().av_dict_free(&options);
    if (rc < 0) return fail("avcodec_open2", rc);
    encoder->frameSize_ = ctx->frame_size > 0 ? ctx->frame_size : 1024;

    encoder->fifo_ = ff().av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, settings.channels, encoder->frameSize_ * 4);
    encoder->frame_ = ff().av_frame_alloc();
    encoder->packet_ = ff().av_packet_alloc();
    if (!encoder->fifo_ || !encoder->frame_ || !encoder->packet_) return fail("allocation", AVERROR(ENOMEM));
    AVFrame* frame = encoder->frame_;
    frame->nb_samples = encoder->frameSize_;
    frame->format = AV_SAMPLE_FMT_FLTP;
    frame->sample_rate = settings.sampleRate;
    ff().av_channel_layout_copy(&frame->ch_layout, &ctx->ch_layout);
    rc = ff().av_frame_get_buffer(frame, 0);
    if (rc < 0) return fail("av_frame_get_buffer", rc);
    return encoder;
}

AacEncoder::~AacEncoder() {
    ff().avcodec_free_context(&codec_);
    if (fifo_) ff().av_audio_fifo_free(fifo_);
    ff().av_frame_free(&frame_);
    ff().av_packet_free(&packet_);
}

Expected<Unit, std::string> AacEncoder::write(const float* const* planes, int channels, std::size_t frames,
                                              int sampleRate, AacPacketSink& sink) {
    if (flushed_) return unexpected(std::string("the encoder is finished"));
    if (frames == 0) return Unit{};
    if (channels <= 0 || sampleRate <= 0) return unexpected(std::string("invalid audio block"));
    if (channels == settings_.channels && sampleRate == settings_.sampleRate) return queue(planes, frames, sink);

    if (!resampler_ || resampler_->inRate() != sampleRate || resampler_->inChannels() != channels) {
        // What the old converter still holds belongs to the file before the new format.
        if (resampler_) {
            auto drained = resampler_->drain(converted_);
            if (drained && !converted_.empty() && !converted_[0].empty()) {
                pointers_.clear();
                for (auto& plane : converted_) pointers_.push_back(plane.data());
                auto queued = queue(pointers_.data(), converted_[0].size(), sink);
                if (!queued) return queued;
            }
        }
        auto made = openSwrResampler(sampleRate, channels, settings_.sampleRate, settings_.channels);
        if (!made) return unexpected(made.error());
        resampler_ = std::move(*made);
    }
    auto converted = resampler_->convert(planes, frames, converted_);
    if (!converted) return unexpected(converted.error());
    if (converted_.empty() || converted_[0].empty()) return Unit{};
    pointers_.clear();
    for (auto& plane : converted_) pointers_.push_back(plane.data());
    return queue(pointers_.data(), converted_[0].size(), sink);
}

Expected<Unit, std::string> AacEncoder::queue(const float* const* planes, std::size_t frames, AacPacketSink& sink) {
    const int rc = ff().av_audio_fifo_write(fifo_, fifoPlanes(planes), static_cast<int>(frames));
    if (rc < 0) return fail("av_audio_fifo_write", rc);
    framesAccepted_ += static_cast<std::int64_t>(frames);
    while (ff().av_audio_fifo_size(fifo_) >= frameSize_) {
        auto encoded = encodeFromFifo(frameSize_, sink);
        if (!encoded) return encoded;
    }
    return Unit{};
}

Expected<Unit, std::string> AacEncoder::flush(AacPacketSink& sink) {
    if (flushed_) return unexpected(std::string("the encoder is finished"));
    Expected<Unit, std::string> result = Unit{};
    if (resampler_) {
        auto drained = resampler_->drain(converted_);
        if (drained && !converted_.empty() && !converted_[0].empty()) {
            pointers_.clear();
            for (auto& plane : converted_) pointers_.push_back(plane.data());
            result = queue(pointers_.data(), converted_[0].size(), sink);
        }
    }
    flushed_ = true;
    while (result && ff().av_audio_fifo_size(fifo_) > 0) {
        result = encodeFromFifo(std::min(frameSize_, ff().av_audio_fifo_size(fifo_)), sink);
    }
    if (result) result = sendAndDrain(nullptr, sink);
    return result;
}

Expected<Unit, std::string> AacEncoder::encodeFromFifo(int samples, AacPacketSink& sink) {
    int rc = ff().av_frame_make_writable(frame_);
    if (rc < 0) return fail("av_frame_make_writable", rc);
    frame_->nb_samples = samples;
    rc = ff().av_audio_fifo_read(fifo_, reinterpret_cast<void**>(frame_->data), samples);
    if (rc < samples) return fail("av_audio_fifo_read", rc < 0 ? rc : AVERROR_BUG);
    frame_->pts = nextPts_;
    nextPts_ += samples;
    return sendAndDrain(frame_, sink);
}

Expected<Unit, std::string> AacEncoder::sendAndDrain(AVFrame* frame, AacPacketSink& sink) {
    int rc = ff().avcodec_send_frame(codec_, frame);
    if (rc < 0) return fail("avcodec_send_frame", rc);
    while (true) {
        rc = ff().avcodec_receive_packet(codec_, packet_);
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return Unit{};
        if (rc < 0) return fail("avcodec_receive_packet", rc);
        auto stored = sink.write(*packet_);
        ff().av_packet_unref(packet_);
        if (!stored) return stored;
    }
}

}  // namespace vell::media
