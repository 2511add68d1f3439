#include "platform/aac_writer.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/opt.h>
}

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <system_error>
#include <vector>

#include "platform/resampler.h"

namespace vell::media {

namespace {

std::string avError(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

// The FIFO only reads from the planes it is given, but its signature is not const.
void** fifoPlanes(const float* const* planes) { return reinterpret_cast<void**>(const_cast<float**>(planes)); }

class FfmpegAacWriter final : public AacWriter {
public:
    FfmpegAacWriter(std::filesystem::path path, AacSettings settings)
        : path_(std::move(path)), settings_(std::move(settings)) {}

    ~FfmpegAacWriter() override {
        if (open_) (void)finish();
        release();
    }

    Expected<Unit, std::string> start() {
        const char* muxer = settings_.container == AacContainer::adts ? "adts" : "ipod";
        int rc = avformat_alloc_output_context2(&format_, nullptr, muxer, path_.c_str());
        if (rc < 0 || !format_) return fail("avformat_alloc_output_context2", rc);

        const AVCodec* codec = avcodec_find_encoder_by_name("aac");
        if (!codec) return unexpected(describe("the AAC encoder is not available"));
        codec_ = avcodec_alloc_context3(codec);
        if (!codec_) return fail("avcodec_alloc_context3", AVERROR(ENOMEM));
        codec_->sample_fmt = AV_SAMPLE_FMT_FLTP;
        codec_->sample_rate = settings_.sampleRate;
        av_channel_layout_default(&codec_->ch_layout, settings_.channels);
        if (settings_.bitRate) codec_->bit_rate = *settings_.bitRate;
        codec_->time_base = AVRational{1, settings_.sampleRate};
        if (format_->oformat->flags & AVFMT_GLOBALHEADER) codec_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        // The default two-loop search costs about twice the CPU for a difference nobody
        // hears in speech at these bit rates; a recorder that runs for hours beside a call
        // must stay light.
        AVDictionary* options = nullptr;
        av_dict_set(&options, "aac_coder", "fast", 0);
        rc = avcodec_open2(codec_, codec, &options);
        av_dict_free(&options);
        if (rc < 0) return fail("avcodec_open2", rc);
        frameSize_ = codec_->frame_size > 0 ? codec_->frame_size : 1024;

        stream_ = avformat_new_stream(format_, nullptr);
        if (!stream_) return fail("avformat_new_stream", AVERROR(ENOMEM));
        stream_->time_base = codec_->time_base;
        rc = avcodec_parameters_from_context(stream_->codecpar, codec_);
        if (rc < 0) return fail("avcodec_parameters_from_context", rc);

        rc = avio_open(&format_->pb, path_.c_str(), AVIO_FLAG_WRITE);
        if (rc < 0) return fail("avio_open", rc);
        createdFile_ = true;
        rc = avformat_write_header(format_, nullptr);
        if (rc < 0) return fail("avformat_write_header", rc);

        fifo_ = av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, settings_.channels, frameSize_ * 4);
        frame_ = av_frame_alloc();
        packet_ = av_packet_alloc();
        if (!fifo_ || !frame_ || !packet_) return fail("allocation", AVERROR(ENOMEM));
        frame_->nb_samples = frameSize_;
        frame_->format = AV_SAMPLE_FMT_FLTP;
        frame_->sample_rate = settings_.sampleRate;
        av_channel_layout_copy(&frame_->ch_layout, &codec_->ch_layout);
        rc = av_frame_get_buffer(frame_, 0);
        if (rc < 0) return fail("av_frame_get_buffer", rc);

        // A second descriptor on the same file: fsync through it reaches the data the
        // muxer wrote through its own.
        syncFd_ = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
        open_ = true;
        return Unit{};
    }

    // Removes what a failed start() created.
    void discard() {
        release();
        if (createdFile_) {
            std::error_code ignored;
            std::filesystem::remove(path_, ignored);
        }
    }

    Expected<Unit, std::string> write(const float* const* planes, int channels, std::size_t frames,
                                      int sampleRate) override {
        if (!open_) return unexpected(describe("the file is closed"));
        if (frames == 0) return Unit{};
        if (channels <= 0 || sampleRate <= 0) return unexpected(describe("invalid audio block"));
        const float* const* input = planes;
        std::size_t count = frames;
        if (channels != settings_.channels || sampleRate != settings_.sampleRate) {
            if (!resampler_ || resampler_->inRate() != sampleRate || resampler_->inChannels() != channels) {
                auto made = Resampler::create(sampleRate, channels, settings_.sampleRate, settings_.channels);
                if (!made) return unexpected(describe(made.error()));
                resampler_ = std::move(*made);
            }
            auto converted = resampler_->convert(planes, frames, converted_);
            if (!converted) return unexpected(describe(converted.error()));
            pointers_.clear();
            for (auto& plane : converted_) pointers_.push_back(plane.data());
            input = pointers_.data();
            count = converted_.empty() ? 0 : converted_[0].size();
        }
        if (count == 0) return Unit{};
        int rc = av_audio_fifo_write(fifo_, fifoPlanes(input),
                                     static_cast<int>(count));
        if (rc < 0) return fail("av_audio_fifo_write", rc);
        framesWritten_ += static_cast<std::int64_t>(count);
        while (av_audio_fifo_size(fifo_) >= frameSize_) {
            auto encoded = encodeFromFifo(frameSize_);
            if (!encoded) return encoded;
        }
        return Unit{};
    }

    Expected<Unit, std::string> syncToDisk() override {
        if (!open_) return unexpected(describe("the file is closed"));
        avio_flush(format_->pb);
        if (format_->pb->error < 0) return fail("avio_flush", format_->pb->error);
        if (syncFd_ < 0) return unexpected(describe("cannot open the file for syncing"));
        if (::fsync(syncFd_) != 0) return unexpected(describe(std::string("fsync: ") + std::strerror(errno)));
        return Unit{};
    }

    Expected<Unit, std::string> finish() override {
        if (!open_) return unexpected(describe("the file is closed"));
        open_ = false;
        Expected<Unit, std::string> result = Unit{};
        if (resampler_) {
            if (resampler_->drain(converted_) && !converted_.empty() && !converted_[0].empty()) {
                pointers_.clear();
                for (auto& plane : converted_) pointers_.push_back(plane.data());
                av_audio_fifo_write(fifo_, fifoPlanes(pointers_.data()),
                                    static_cast<int>(converted_[0].size()));
                framesWritten_ += static_cast<std::int64_t>(converted_[0].size());
            }
        }
        while (result && av_audio_fifo_size(fifo_) > 0) {
            result = encodeFromFifo(std::min(frameSize_, av_audio_fifo_size(fifo_)));
        }
        if (result) result = sendAndDrain(nullptr);
        int rc = av_write_trailer(format_);
        if (result && rc < 0) result = fail("av_write_trailer", rc);
        avio_flush(format_->pb);
        if (result && format_->pb->error < 0) result = fail("avio_flush", format_->pb->error);
        rc = avio_closep(&format_->pb);
        if (result && rc < 0) result = fail("avio_close", rc);
        if (syncFd_ >= 0) {
            ::fsync(syncFd_);
            ::close(syncFd_);
            syncFd_ = -1;
        }
        release();
        return result;
    }

    const AacSettings& settings() const override { return settings_; }
    std::int64_t framesWritten() const override { return framesWritten_; }
    const std::filesystem::path& path() const override { return path_; }

private:
    std::string describe(const std::string& reason) const { return path_.string() + ": " + reason; }
    Unexpected<std::string> fail(const char* call, int code) const {
        return unexpected(describe(std::string(call) + ": " + avError(code)));
    }

    Expected<Unit, std::string> encodeFromFifo(int samples) {
        int rc = av_frame_make_writable(frame_);
        if (rc < 0) return fail("av_frame_make_writable", rc);
        frame_->nb_samples = samples;
        rc = av_audio_fifo_read(fifo_, reinterpret_cast<void**>(frame_->data), samples);
        if (rc < samples) return fail("av_audio_fifo_read", rc < 0 ? rc : AVERROR_BUG);
        frame_->pts = nextPts_;
        nextPts_ += samples;
        return sendAndDrain(frame_);
    }

    Expected<Unit, std::string> sendAndDrain(AVFrame* frame) {
        int rc = avcodec_send_frame(codec_, frame);
        if (rc < 0) return fail("avcodec_send_frame", rc);
        while (true) {
            rc = avcodec_receive_packet(codec_, packet_);
            if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return Unit{};
            if (rc < 0) return fail("avcodec_receive_packet", rc);
            packet_->stream_index = stream_->index;
            av_packet_rescale_ts(packet_, codec_->time_base, stream_->time_base);
            rc = av_write_frame(format_, packet_);
            av_packet_unref(packet_);
            if (rc < 0) return fail("av_write_frame", rc);
            if (format_->pb->error < 0) return fail("write", format_->pb->error);
        }
    }

    void release() {
        if (format_) {
            if (format_->pb) avio_closep(&format_->pb);
            avformat_free_context(format_);
            format_ = nullptr;
        }
        avcodec_free_context(&codec_);
        if (fifo_) av_audio_fifo_free(fifo_);
        fifo_ = nullptr;
        av_frame_free(&frame_);
        av_packet_free(&packet_);
        if (syncFd_ >= 0) ::close(syncFd_);
        syncFd_ = -1;
        resampler_.reset();
    }

    std::filesystem::path path_;
    AacSettings settings_;
    AVFormatContext* format_ = nullptr;
    AVCodecContext* codec_ = nullptr;
    AVStream* stream_ = nullptr;
    AVAudioFifo* fifo_ = nullptr;
    AVFrame* frame_ = nullptr;
    AVPacket* packet_ = nullptr;
    int frameSize_ = 1024;
    std::int64_t nextPts_ = 0;
    std::int64_t framesWritten_ = 0;
    int syncFd_ = -1;
    bool open_ = false;
    bool createdFile_ = false;
    std::unique_ptr<Resampler> resampler_;
    std::vector<std::vector<float>> converted_;
    std::vector<const float*> pointers_;
};

}  // namespace

Expected<std::unique_ptr<AacWriter>, std::string> openAacWriter(const std::filesystem::path& path,
                                                                const AacSettings& settings) {
    if (settings.sampleRate <= 0 || settings.channels <= 0 || settings.channels > 8) {
        return unexpected(path.string() + ": unsupported format (" + std::to_string(settings.channels) +
                          " channels at " + std::to_string(settings.sampleRate) + " Hz)");
    }
    static std::once_flag quiet;
    // The library's own chatter (encoder statistics, muxer notes) is not for our users.
    std::call_once(quiet, [] { av_log_set_level(AV_LOG_ERROR); });
    auto writer = std::make_unique<FfmpegAacWriter>(path, settings);
    auto started = writer->start();
    if (!started) {
        writer->discard();
        return unexpected(started.error());
    }
    return std::unique_ptr<AacWriter>(std::move(writer));
}

}  // namespace vell::media
