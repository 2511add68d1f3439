#include "platform/codec/adts_decoder.h"
#include "platform/codec/ffmpeg_library.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
}

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>
#include <memory>

namespace vell::media {

namespace {
struct ParserCloser {
    void operator()(AVCodecParserContext* p) const { ff().av_parser_close(p); }
};
struct CodecCloser {
    void operator()(AVCodecContext* c) const { ff().avcodec_free_context(&c); }
};
struct PacketCloser {
    void operator()(AVPacket* p) const { ff().av_packet_free(&p); }
};
struct FrameCloser {
    void operator()(AVFrame* f) const { ff().av_frame_free(&f); }
};

int16_t toInt16(float v) { return static_cast<int16_t>(std::lround(std::clamp(v, -1.0f, 1.0f) * 32767.0f)); }

void append(const AVFrame* frame, DecodedPcm& out) {
    const int channels = frame->ch_layout.nb_channels;
    if (out.channels == 0) {
        out.channels = channels;
        out.sampleRate = frame->sample_rate;
    }
    if (channels != out.channels) return;  // a change mid-file: keep the first layout
    const auto format = static_cast<AVSampleFormat>(frame->format);
    for (int i = 0; i < frame->nb_samples; ++i) {
        for (int c = 0; c < channels; ++c) {
            float v = 0;
            switch (format) {
                case AV_SAMPLE_FMT_FLTP: v = reinterpret_cast<const float*>(frame->extended_data[c])[i]; break;
                case AV_SAMPLE_FMT_FLT: v = reinterpret_cast<const float*>(frame->extended_data[0])[i * channels + c]; break;
                case AV_SAMPLE_FMT_S16P: v = reinterpret_cast<const int16_t*>(frame->extended_data[c])[i] / 32768.0f; break;
                case AV_SAMPLE_FMT_S16: v = reinterpret_cast<const int16_t*>(frame->extended_data[0])[i * channels + c] / 32768.0f; break;
                default: return;
            }
            out.samples.push_back(toInt16(v));
        }
    }
}
}  // namespace

Expected<DecodedPcm, std::string> decodeAdtsFile(const std::filesystem::path& file) {
    if (auto codecs = ffmpegLibrary(); !codecs) return unexpected(codecs.error());
    std::ifstream in(file, std::ios::binary);
    if (!in) return unexpected("cannot open " + file.string());
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const AVCodec* codec = ff().avcodec_find_decoder(AV_CODEC_ID_AAC);
    if (!codec) return unexpected(std::string("no AAC decoder"));
    std::unique_ptr<AVCodecParserContext, ParserCloser> parser(ff().av_parser_init(codec->id));
    std::unique_ptr<AVCodecContext, CodecCloser> context(ff().avcodec_alloc_context3(codec));
    std::unique_ptr<AVPacket, PacketCloser> packet(ff().av_packet_alloc());
    std::unique_ptr<AVFrame, FrameCloser> frame(ff().av_frame_alloc());
    if (!parser || !context || !packet || !frame) return unexpected(std::string("out of memory"));
    if (ff().avcodec_open2(context.get(), codec, nullptr) < 0) return unexpected(std::string("cannot open the AAC decoder"));
    DecodedPcm out;
    auto drain = [&] {
        while (ff().avcodec_receive_frame(context.get(), frame.get()) == 0) {
            append(frame.get(), out);
            ff().av_frame_unref(frame.get());
        }
    };
    // The parser wants padding after the data it reads.
    bytes.append(AV_INPUT_BUFFER_PADDING_SIZE, '\0');
    const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
    int left = static_cast<int>(bytes.size() - AV_INPUT_BUFFER_PADDING_SIZE);
    while (left > 0) {
        const int used = ff().av_parser_parse2(parser.get(), context.get(), &packet->data, &packet->size, data, left,
                                          AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
        if (used < 0) break;
        data += used;
        left -= used;
        if (packet->size > 0 && ff().avcodec_send_packet(context.get(), packet.get()) == 0) drain();
    }
    // What the parser still holds, then what the decoder holds.
    ff().av_parser_parse2(parser.get(), context.get(), &packet->data, &packet->size, nullptr, 0, AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    if (packet->size > 0 && ff().avcodec_send_packet(context.get(), packet.get()) == 0) drain();
    ff().avcodec_send_packet(context.get(), nullptr);
    drain();
    if (out.samples.empty()) return unexpected("no audio in " + file.filename().string());
    return out;
}

}  // namespace vell::media
