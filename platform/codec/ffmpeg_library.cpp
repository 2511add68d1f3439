#include "platform/codec/ffmpeg_library.h"

#include <dlfcn.h>

#include <stdexcept>

namespace vell::media {

namespace {

struct Handles {
    void* avutil = nullptr;
    void* avcodec = nullptr;
    void* swresample = nullptr;
};

Expected<FfmpegLibrary, std::string> load() {
    Handles handles;
    // libavutil first: the other two need it, and RTLD_LOCAL keeps all their symbols out of
    // the global scope.
    for (auto [slot, soname] : {std::pair{&handles.avutil, kAvutilSoname}, std::pair{&handles.avcodec, kAvcodecSoname},
                                std::pair{&handles.swresample, kSwresampleSoname}}) {
        *slot = ::dlopen(soname, RTLD_NOW | RTLD_LOCAL);
        if (!*slot) {
            const char* why = ::dlerror();
            return unexpected(std::string("cannot load ") + soname + (why ? std::string(" (") + why + ")" : ""));
        }
    }
    FfmpegLibrary lib;
    std::string missing;
#define VELL_FFMPEG_RESOLVE(library, name)                                            \
    lib.name = reinterpret_cast<decltype(lib.name)>(::dlsym(handles.library, #name)); \
    if (!lib.name && missing.empty()) missing = #name;
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
