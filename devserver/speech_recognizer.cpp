#include "devserver/speech_recognizer.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <cstring>
#include <memory>

#include "devserver/speech_decoder.h"

namespace vell::devserver {

namespace {

// The body as a read-only, seekable input for the demuxer.
struct MemoryInput {
    const std::string& bytes;
    size_t at = 0;

    static int read(void* opaque, uint8_t* buffer, int size) {
        auto* self = static_cast<MemoryInput*>(opaque);
        const size_t left = self->bytes.size() - self->at;
        if (left == 0) return AVERROR_EOF;
        const size_t n = std::min(left, static_cast<size_t>(size));
        std::memcpy(buffer, self->bytes.data() + self->at, n);
        self->at += n;
        return static_cast<int>(n);
    }
    static int64_t seek(void* opaque, int64_t offset, int whence) {
        auto* self = static_cast<MemoryInput*>(opaque);
        const auto size = static_cast<int64_t>(self->bytes.size());
        if (whence & AVSEEK_SIZE) return size;
        int64_t target = offset;
        switch (whence & ~AVSEEK_FORCE) {
            case SEEK_SET: break;
            case SEEK_CUR: target += static_cast<int64_t>(self->at); break;
            case SEEK_END: target += size; break;
            default: return -1;
        }
        if (target < 0 || target > size) return -1;
        self->at = static_cast<size_t>(target);
        return target;
    }
};

struct FormatCloser {
    void operator()(AVFormatContext* c) const { avformat_close_input(&c); }
};
struct IoCloser {
    void operator()(AVIOContext* c) const {
        av_freep(&c->buffer);
        avio_context_free(&c);
    }
};
struct CodecCloser {
    void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct ResamplerCloser {
    void operator()(SwrContext* c) const { swr_free(&c); }
};
struct PacketCloser {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct FrameCloser {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};

class Decoder {
public:
    explicit Decoder(const std::string& bytes) : input_{bytes} {}

    std::vector<int16_t> run() {
        if (!open()) return {};
        std::unique_ptr<AVPacket, PacketCloser> packet(av_packet_alloc());
        std::unique_ptr<AVFrame, FrameCloser> frame(av_frame_alloc());
        while (av_read_frame(format_.get(), packet.get()) >= 0) {
            if (packet->stream_index == stream_) {
                // A damaged packet is skipped; the rest of the audio still counts.
                if (avcodec_send_packet(codec_.get(), packet.get()) == 0) drain(frame.get());
            }
            av_packet_unref(packet.get());
        }
        avcodec_send_packet(codec_.get(), nullptr);
        drain(frame.get());
        convert(nullptr, 0);  // what the resampler still holds
        return std::move(out_);
    }

private:
    bool open() {
        constexpr int kBuffer = 32 * 1024;
        auto* buffer = static_cast<unsigned char*>(av_malloc(kBuffer));
        if (!buffer) return false;
        io_.reset(avio_alloc_context(buffer, kBuffer, 0, &input_, &MemoryInput::read, nullptr, &MemoryInput::seek));
        if (!io_) {
            av_free(buffer);
            return false;
        }
        AVFormatContext* format = avformat_alloc_context();
        if (!format) return false;
        format->pb = io_.get();
        format->flags |= AVFMT_FLAG_CUSTOM_IO;
        if (avformat_open_input(&format, nullptr, nullptr, nullptr) < 0) return false;  // frees it on failure
        format_.reset(format);
        if (avformat_find_stream_info(format, nullptr) < 0) return false;
        const AVCodec* codec = nullptr;
        stream_ = av_find_best_stream(format, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
        if (stream_ < 0 || !codec) return false;
        codec_.reset(avcodec_alloc_context3(codec));
        if (!codec_) return false;
        if (avcodec_parameters_to_context(codec_.get(), format->streams[stream_]->codecpar) < 0) return false;
        return avcodec_open2(codec_.get(), codec, nullptr) == 0;
    }

    void drain(AVFrame* frame) {
        while (avcodec_receive_frame(codec_.get(), frame) == 0) {
            if (!resampler_ && !openResampler(frame)) return;
            convert(const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples);
            av_frame_unref(frame);
        }
    }

    bool openResampler(AVFrame* frame) {
        AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
        SwrContext* swr = nullptr;
        if (swr_alloc_set_opts2(&swr, &mono, AV_SAMPLE_FMT_S16, SpeechDecoder::kRate, &frame->ch_layout,
                                static_cast<AVSampleFormat>(frame->format), frame->sample_rate, 0, nullptr) < 0) {
            return false;
        }
        resampler_.reset(swr);
        inputRate_ = frame->sample_rate;
        return swr_init(swr) == 0;
    }

    void convert(const uint8_t** data, int samples) {
        if (!resampler_) return;
        const int room = static_cast<int>(
            av_rescale_rnd(swr_get_delay(resampler_.get(), inputRate_) + samples, SpeechDecoder::kRate, inputRate_, AV_ROUND_UP));
        if (room <= 0) return;
        const size_t at = out_.size();
        out_.resize(at + static_cast<size_t>(room));
        auto* target = reinterpret_cast<uint8_t*>(out_.data() + at);
        const int made = swr_convert(resampler_.get(), &target, room, data, samples);
        out_.resize(at + static_cast<size_t>(std::max(made, 0)));
    }

    MemoryInput input_;
    std::unique_ptr<AVIOContext, IoCloser> io_;
    std::unique_ptr<AVFormatContext, FormatCloser> format_;
    std::unique_ptr<AVCodecContext, CodecCloser> codec_;
    std::unique_ptr<SwrContext, ResamplerCloser> resampler_;
    int stream_ = -1;
    int inputRate_ = 0;
    std::vector<int16_t> out_;
};

}  // namespace

std::vector<int16_t> decodeToSpeechRate(const std::string& audioBytes) {
    if (audioBytes.empty()) return {};
    // A damaged frame is skipped and counted by the caller, not logged per frame.
    static const bool quiet = [] {
        av_log_set_level(AV_LOG_FATAL);
        return true;
    }();
    (void)quiet;
    return Decoder(audioBytes).run();
}

Recognition recognizeSpeech(const std::vector<int16_t>& samples16k) {
    SpeechDecoder decoder;
    decoder.feed(samples16k.data(), samples16k.size());
    return decoder.finish();
}

}  // namespace vell::devserver
