#pragma once
// libavformat, loaded when the first MPEG-4 file is opened rather than linked: only the
// ".m4a" files need it, and linking it maps a score of libraries (disc menus, network
// protocols, tracker formats) into every start of the program.
extern "C" {
#include <libavformat/avformat.h>
}

#include <string>

#include "base/expected.h"

namespace vell::media {

// The few entry points the MPEG-4 sink calls. Struct layouts come from the headers of the
// same major version as the soname below.
struct AvformatLibrary {
    decltype(&::avformat_alloc_output_context2) allocOutputContext = nullptr;
    decltype(&::avformat_new_stream) newStream = nullptr;
    decltype(&::avio_open) ioOpen = nullptr;
    decltype(&::avformat_write_header) writeHeader = nullptr;
    decltype(&::av_write_frame) writeFrame = nullptr;
    decltype(&::av_write_trailer) writeTrailer = nullptr;
    decltype(&::avio_flush) ioFlush = nullptr;
    decltype(&::avio_closep) ioClose = nullptr;
    decltype(&::avformat_free_context) freeContext = nullptr;
    // Reading files (vell speech-test).
    decltype(&::avformat_open_input) openInput = nullptr;
    decltype(&::avformat_find_stream_info) findStreamInfo = nullptr;
    decltype(&::av_find_best_stream) findBestStream = nullptr;
    decltype(&::av_read_frame) readFrame = nullptr;
    decltype(&::avformat_close_input) closeInput = nullptr;
};

inline constexpr const char* kAvformatSoname = "libavformat.so." AV_STRINGIFY(LIBAVFORMAT_VERSION_MAJOR);

// Loads the library once per process (safe from any thread) and keeps it loaded; every
// later call returns the same table or the same error, which names the library.
Expected<const AvformatLibrary*, std::string> avformatLibrary();

// Loads `soname` and resolves the table, without caching: for the process-wide load above
// and for checking how a missing library or symbol is reported.
Expected<AvformatLibrary, std::string> loadAvformatLibrary(const std::string& soname);

}  // namespace vell::media
