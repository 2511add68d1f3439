#include "platform/codec/audio_file_reader.h"
#include "platform/codec/ffmpeg_library.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <memory>

#include "platform/codec/avformat_library.h"

namespace vell::media {

namespace {

std::string averror(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    ff().av_strerror(code, text, sizeof text);
    return text;
}

}  // namespace

Expected<Unit, std::string> readAudioFile(const std::filesystem::path& file,
                                          const std::function<void(audio::PcmBufferPtr)>& onBlock) {
    if (auto codecs = ffmpegLibrary(); !codecs) return unexpected(codecs.error());
    auto lib = avformatLibrary();
    if (!lib) return unexpected(lib.error());
    const auto& av = **lib;
    const std::string name = file.string();
    // Decoders warn about details a listener never notices; real failures come back below.
    if (ff().av_log_get_level() > AV_LOG_ERROR) ff().av_log_set_level(AV_LOG_ERROR);

    AVFormatContext* format = nullptr;
    if (int rc = av.openInput(&format, name.c_str(), nullptr, nullptr); rc < 0)
        return unexpected(name + ": " + averror(rc));
    std::unique_ptr<AVFormatContext*, void (*)(AVFormatContext**)> closeFormat(&format, av.closeInput);
    if (int rc = av.findStreamInfo(format, nullptr); rc < 0) return unexpected(name + ": " + averror(rc));
    const AVCodec* codec = nullptr;
    const int stream = av.findBestStream(format, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
    if (stream < 0 || !codec) return unexpected(name + ": no audio stream FFmpeg can decode");

    std::unique_ptr<AVCodecContext, void (*)(AVCodecContext*)> decoder(ff().avcodec_alloc_context3(codec),
                                                                        [](AVCodecContext* c) { ff().avcodec_free_context(&c); });
    if (!decoder) return unexpected(name + ": out of memory");
    if (int rc = ff().avcodec_parameters_to_context(decoder.get(), format->streams[stream]->codecpar); rc < 0)
        return unexpected(name + ": " + averror(rc));
    if (int rc = ff().avcodec_open2(decoder.get(), codec, nullptr); rc < 0) return unexpected(name + ": " + averror(rc));

    std::unique_ptr<AVPacket, void (*)(AVPacket*)> packet(ff().av_packet_alloc(), [](AVPacket* p) { ff().av_packet_free(&p); });
    std::unique_ptr<AVFrame, void (*)(AVFrame*)> frame(ff().av_frame_alloc(), [](AVFrame* f) { ff().av_frame_free(&f); });
    SwrContext* swr = nullptr;
    std::unique_ptr<SwrContext*, void (*)(SwrContext**)> freeSwr(&swr, ff().swr_free);

    // Each decoded frame becomes planar float at its own rate and channel count.
    auto deliver = [&]() -> Expected<Unit, std::string> {
        const int channels = frame->ch_layout.nb_channels;
        if (channels <= 0 || frame->sample_rate <= 0 || frame->nb_samples <= 0) return Unit{};
        if (!swr) {
            if (int rc = ff().swr_alloc_set_opts2(&swr, &frame->ch_layout, AV_SAMPLE_FMT_FLTP, frame->sample_rate,
                                             &frame->ch_layout, static_cast<AVSampleFormat>(frame->format),
                                             frame->sample_rate, 0, nullptr);
                rc < 0 || ff().swr_init(swr) < 0)
                return unexpected(name + ": cannot convert its samples");
        }
        auto block = audio::PcmBuffer::make(frame->sample_rate, channels, static_cast<std::size_t>(frame->nb_samples));
        std::vector<std::uint8_t*> planes;
        for (auto& c : block->channels) planes.push_back(reinterpret_cast<std::uint8_t*>(c.data()));
        const int got = ff().swr_convert(swr, planes.data(), frame->nb_samples,
                                    const_cast<const std::uint8_t**>(frame->extended_data), frame->nb_samples);
        if (got < 0) return unexpected(name + ": " + averror(got));
        for (auto& c : block->channels) c.resize(static_cast<std::size_t>(got));
        if (got > 0) onBlock(std::move(block));
        return Unit{};
    };
    auto drainDecoder = [&]() -> Expected<Unit, std::string> {
        while (true) {
            const int rc = ff().avcodec_receive_frame(decoder.get(), frame.get());
            if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return Unit{};
            if (rc < 0) return unexpected(name + ": " + averror(rc));
            auto delivered = deliver();
            ff().av_frame_unref(frame.get());
            if (!delivered) return delivered;
        }
    };

    while (av.readFrame(format, packet.get()) >= 0) {
        if (packet->stream_index == stream) {
            const int rc = ff().avcodec_send_packet(decoder.get(), packet.get());
            ff().av_packet_unref(packet.get());
            // A damaged packet is skipped, as players do.
            if (rc < 0 && rc != AVERROR(EAGAIN) && rc != AVERROR_INVALIDDATA) return unexpected(name + ": " + averror(rc));
            if (auto drained = drainDecoder(); !drained) return drained;
        } else {
            ff().av_packet_unref(packet.get());
        }
    }
    ff().avcodec_send_packet(decoder.get(), nullptr);
    return drainDecoder();
}

}  // namespace vell::media
