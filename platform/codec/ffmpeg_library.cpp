#include "platform/codec/ffmpeg_library.h"

#include <stdexcept>

#include "base/shared_library.h"

namespace vell::media {

namespace {

struct Handles {
    void* avutil = nullptr;
    void* avcodec = nullptr;
    void* swresample = nullptr;
};

Expected<FfmpegLibrary, std::string> load() {
    Handles handles;
    // libavutil first: the other two need it.
    for (auto [slot, soname] : {std::pair{&handles.avutil, kAvutilSoname}, std::pair{&handles.avcodec, kAvcodecSoname},
                                std::pair{&handles.swresample, kSwresampleSoname}}) {
        auto opened = shared_library::open(soname);
        if (!opened) return unexpected(opened.error());
        *slot = *opened;
    }
    FfmpegLibrary lib;
    std::string missing;
#define VELL_FFMPEG_RESOLVE(library, name) shared_library::resolve(handles.library, #name, lib.name, missing);
    VELL_FFMPEG_FUNCTIONS(VELL_FFMPEG_RESOLVE)
#undef VELL_FFMPEG_RESOLVE
    // Never unloaded: encoders and resamplers made through them may outlive any caller.
    if (!missing.empty()) return unexpected("the FFmpeg libraries have no " + missing);
    return lib;
}

const Expected<FfmpegLibrary, std::string>& loaded() {
    static const Expected<FfmpegLibrary, std::string> library = load();
    return library;
}

}  // namespace

Expected<const FfmpegLibrary*, std::string> ffmpegLibrary() {
    const auto& library = loaded();
    if (!library) return unexpected(library.error());
    return &*library;
}

const FfmpegLibrary& ff() {
    const auto& library = loaded();
    if (!library) throw std::logic_error("FFmpeg used before it loaded: " + library.error());
    return *library;
}

std::string ffmpegErrorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    ff().av_strerror(code, text, sizeof text);
    return text;
}

}  // namespace vell::media
