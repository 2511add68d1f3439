#include "platform/codec/mpeg4_file_sink.h"
#include "platform/codec/ffmpeg_library.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/codec/aac_encoder.h"
#include "platform/codec/avformat_library.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace vell::media {

namespace {

Unexpected<std::string> fail(const char* call, int code) {
    return unexpected(std::string(call) + ": " + ffmpegErrorText(code));
}

}  // namespace

Expected<std::unique_ptr<Mpeg4FileSink>, std::string> Mpeg4FileSink::create(const std::filesystem::path& path,
                                                                            const AVCodecContext& encoder,
                                                                            bool& createdFile) {
    createdFile = false;
    auto lib = avformatLibrary();
    if (!lib) return unexpected(lib.error());
    std::unique_ptr<Mpeg4FileSink> sink(new Mpeg4FileSink(**lib, encoder));
    auto opened = sink->open(path, createdFile);
    if (!opened) return unexpected(opened.error());
    return sink;
}

Expected<Unit, std::string> Mpeg4FileSink::open(const std::filesystem::path& path, bool& createdFile) {
    int rc = lib_.allocOutputContext(&format_, nullptr, "ipod", path.c_str());
    if (rc < 0 || !format_) return fail("avformat_alloc_output_context2", rc < 0 ? rc : AVERROR(ENOMEM));
    stream_ = lib_.newStream(format_, nullptr);
    if (!stream_) return fail("avformat_new_stream", AVERROR(ENOMEM));
    stream_->time_base = encoder_.time_base;
    rc = ff().avcodec_parameters_from_context(stream_->codecpar, &encoder_);
    if (rc < 0) return fail("avcodec_parameters_from_context", rc);
    // Made here, the user's alone and never through a link, before FFmpeg opens it (FFmpeg
    // would create it open to whatever the mask allows).
    syncFd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (syncFd_ < 0) return unexpected(std::string("open: ") + std::strerror(errno));
    createdFile = true;
    rc = lib_.ioOpen(&format_->pb, path.c_str(), AVIO_FLAG_WRITE);
    if (rc < 0) return fail("avio_open", rc);
    rc = lib_.writeHeader(format_, nullptr);
    if (rc < 0) return fail("avformat_write_header", rc);
    open_ = true;
    return Unit{};
}

Mpeg4FileSink::~Mpeg4FileSink() {
    release();
}

Expected<Unit, std::string> Mpeg4FileSink::write(AVPacket& packet) {
    if (!open_) return unexpected(std::string("the file is closed"));
    packet.stream_index = stream_->index;
    ff().av_packet_rescale_ts(&packet, encoder_.time_base, stream_->time_base);
    const int rc = lib_.writeFrame(format_, &packet);
    if (rc < 0) return fail("av_write_frame", rc);
    if (format_->pb->error < 0) return fail("write", format_->pb->error);
    return Unit{};
}

Expected<Unit, std::string> Mpeg4FileSink::syncToDisk() {
    if (!open_) return unexpected(std::string("the file is closed"));
    lib_.ioFlush(format_->pb);
    if (format_->pb->error < 0) return fail("avio_flush", format_->pb->error);
    while (::fdatasync(syncFd_) != 0) {
        if (errno != EINTR) return unexpected(std::string("fdatasync: ") + std::strerror(errno));
    }
    return Unit{};
}

Expected<Unit, std::string> Mpeg4FileSink::finish() {
    if (!open_) return unexpected(std::string("the file is closed"));
    open_ = false;
    Expected<Unit, std::string> result = Unit{};
    int rc = lib_.writeTrailer(format_);
    if (rc < 0) result = fail("av_write_trailer", rc);
    lib_.ioFlush(format_->pb);
    if (result && format_->pb->error < 0) result = fail("avio_flush", format_->pb->error);
    rc = lib_.ioClose(&format_->pb);
    if (result && rc < 0) result = fail("avio_close", rc);
    if (::fdatasync(syncFd_) != 0 && result) result = unexpected(std::string("fdatasync: ") + std::strerror(errno));
    release();
    return result;
}

void Mpeg4FileSink::release() {
    if (format_) {
        if (format_->pb) lib_.ioClose(&format_->pb);
        lib_.freeContext(format_);
        format_ = nullptr;
    }
    if (syncFd_ >= 0) ::close(syncFd_);
    syncFd_ = -1;
}

}  // namespace vell::media
