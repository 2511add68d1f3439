#pragma once
// libavcodec, libavutil and libswresample, loaded when the first encoder or resampler is
// opened rather than linked: linking them maps some sixty libraries (video codecs, SVG and
// font rendering, VA-API) into every start of the program, a third of an idle daemon's
// memory, for work that only begins with a recording.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libswresample/swresample.h>
}

#include <string>

#include "base/expected.h"

namespace vell::media {

// Every entry point the codec binding calls, with the library that holds it.
#define VELL_FFMPEG_FUNCTIONS(X)                \
    X(avutil, av_audio_fifo_alloc)              \
    X(avutil, av_audio_fifo_free)               \
    X(avutil, av_audio_fifo_read)               \
    X(avutil, av_audio_fifo_size)               \
    X(avutil, av_audio_fifo_write)              \
    X(avutil, av_channel_layout_copy)           \
    X(avutil, av_channel_layout_default)        \
    X(avutil, av_channel_layout_uninit)         \
    X(avutil, av_dict_free)                     \
    X(avutil, av_dict_set)                      \
    X(avutil, av_frame_alloc)                   \
    X(avutil, av_frame_free)                    \
    X(avutil, av_frame_get_buffer)              \
    X(avutil, av_frame_make_writable)           \
    X(avutil, av_frame_unref)                   \
    X(avutil, av_log_get_level)                 \
    X(avutil, av_log_set_level)                 \
    X(avutil, av_strerror)                      \
    X(avcodec, av_packet_alloc)                 \
    X(avcodec, av_packet_free)                  \
    X(avcodec, av_packet_rescale_ts)            \
    X(avcodec, av_packet_unref)                 \
    X(avcodec, avcodec_alloc_context3)          \
    X(avcodec, avcodec_find_encoder_by_name)    \
    X(avcodec, avcodec_free_context)            \
    X(avcodec, avcodec_open2)                   \
    X(avcodec, avcodec_parameters_from_context) \
    X(avcodec, avcodec_receive_packet)          \
    X(avcodec, avcodec_send_frame)              \
    X(avcodec, avcodec_find_decoder)            \
    X(avcodec, avcodec_parameters_to_context)   \
    X(avcodec, avcodec_receive_frame)           \
    X(avcodec, avcodec_send_packet)             \
    X(avcodec, av_parser_close)                 \
    X(avcodec, av_parser_init)                  \
    X(avcodec, av_parser_parse2)                \
    X(swresample, swr_alloc_set_opts2)          \
    X(swresample, swr_convert)                  \
    X(swresample, swr_free)                     \
    X(swresample, swr_get_out_samples)          \
    X(swresample, swr_init)

// Members carry the functions' own names, so a call reads `ff().avcodec_open2(...)`.
// Struct layouts come from the headers of the same major versions as the sonames below.
struct FfmpegLibrary {
#define VELL_FFMPEG_SLOT(library, name) decltype(&::name) name = nullptr;
    VELL_FFMPEG_FUNCTIONS(VELL_FFMPEG_SLOT)
#undef VELL_FFMPEG_SLOT
};

inline constexpr const char* kAvutilSoname = "libavutil.so." AV_STRINGIFY(LIBAVUTIL_VERSION_MAJOR);
inline constexpr const char* kAvcodecSoname = "libavcodec.so." AV_STRINGIFY(LIBAVCODEC_VERSION_MAJOR);
inline constexpr const char* kSwresampleSoname = "libswresample.so." AV_STRINGIFY(LIBSWRESAMPLE_VERSION_MAJOR);

// Loads the three libraries once per process (safe from any thread) and keeps them loaded;
// every later call returns the same table or the same error, which names the library.
Expected<const FfmpegLibrary*, std::string> ffmpegLibrary();

// The loaded table, for code that runs only after an encoder or resampler opened (their
// factories call ffmpegLibrary() first and report its error). Throws std::logic_error
// when the libraries were never loaded.
const FfmpegLibrary& ff();

// FFmpeg's sentence for one of its error codes.
std::string ffmpegErrorText(int code);

}  // namespace vell::media
