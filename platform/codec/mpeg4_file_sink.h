#pragma once
// ".m4a" files through libavformat's "ipod" muxer (loaded on first use). The index is
// written by finish(), so an unfinished file does not play.
#include <filesystem>
#include <memory>
#include <string>

#include "platform/codec/aac_packet_sink.h"

struct AVFormatContext;
struct AVStream;

namespace vell::media {

struct AvformatLibrary;

class Mpeg4FileSink final : public AacPacketSink {
public:
    // Creates (truncates) the file and writes its header. The encoder must have been opened
    // with a global header. On failure `createdFile` tells whether the file was made.
    static Expected<std::unique_ptr<Mpeg4FileSink>, std::string> create(const std::filesystem::path& path,
                                                                        const AVCodecContext& encoder,
                                                                        bool& createdFile);
    ~Mpeg4FileSink() override;

    Expected<Unit, std::string> write(AVPacket& packet) override;
    Expected<Unit, std::string> syncToDisk() override;
    Expected<Unit, std::string> finish() override;

private:
    Mpeg4FileSink(const AvformatLibrary& lib, const AVCodecContext& encoder) : lib_(lib), encoder_(encoder) {}
    Expected<Unit, std::string> open(const std::filesystem::path& path, bool& createdFile);
    void release();

    const AvformatLibrary& lib_;
    const AVCodecContext& encoder_;
    AVFormatContext* format_ = nullptr;
    AVStream* stream_ = nullptr;
    // A second descriptor on the same file: syncing through it reaches the data the muxer
    // wrote through its own.
    int syncFd_ = -1;
    bool open_ = false;
};

}  // namespace vell::media
