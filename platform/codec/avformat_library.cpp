#include "platform/codec/avformat_library.h"

#include <dlfcn.h>

#include "base/shared_library.h"

namespace vell::media {

using shared_library::resolve;

Expected<AvformatLibrary, std::string> loadAvformatLibrary(const std::string& soname) {
    // libavcodec and libavutil, loaded with the encoder before any file is written, are
    // found already there: one copy of each.
    auto opened = shared_library::open(soname);
    if (!opened) return unexpected(opened.error());
    void* handle = *opened;
    AvformatLibrary lib;
    std::string missing;
    resolve(handle, "avformat_alloc_output_context2", lib.allocOutputContext, missing);
    resolve(handle, "avformat_new_stream", lib.newStream, missing);
    resolve(handle, "avio_open", lib.ioOpen, missing);
    resolve(handle, "avformat_write_header", lib.writeHeader, missing);
    resolve(handle, "av_write_frame", lib.writeFrame, missing);
    resolve(handle, "av_write_trailer", lib.writeTrailer, missing);
    resolve(handle, "avio_flush", lib.ioFlush, missing);
    resolve(handle, "avio_closep", lib.ioClose, missing);
    resolve(handle, "avformat_free_context", lib.freeContext, missing);
    resolve(handle, "avformat_open_input", lib.openInput, missing);
    resolve(handle, "avformat_find_stream_info", lib.findStreamInfo, missing);
    resolve(handle, "av_find_best_stream", lib.findBestStream, missing);
    resolve(handle, "av_read_frame", lib.readFrame, missing);
    resolve(handle, "avformat_close_input", lib.closeInput, missing);
    if (!missing.empty()) {
        ::dlclose(handle);
        return unexpected(soname + " has no " + missing);
    }
    // Never unloaded: contexts made through it may outlive any one caller.
    return lib;
}

Expected<const AvformatLibrary*, std::string> avformatLibrary() {
    static const Expected<AvformatLibrary, std::string> loaded = loadAvformatLibrary(kAvformatSoname);
    if (!loaded) return unexpected(loaded.error());
    return &*loaded;
}

}  // namespace vell::media
