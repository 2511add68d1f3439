#pragma once
// Where encoded AAC packets go: one container file. The AAC writer pairs one encoder with
// one sink; errors are reasons without the file name (the writer adds it).
#include <cstdint>
#include <string>

#include "base/expected.h"

struct AVCodecContext;
struct AVPacket;

namespace vell::media {

class AacPacketSink {
public:
    virtual ~AacPacketSink() = default;
    // Stores one packet; its timestamps are in the encoder's time base (1 / sample rate).
    virtual Expected<Unit, std::string> write(AVPacket& packet) = 0;
    // Hands everything stored so far to the kernel and waits until it is on stable storage.
    virtual Expected<Unit, std::string> syncToDisk() = 0;
    // Writes what the container needs at the end, reaches stable storage and closes the
    // file. Called once; later calls fail.
    virtual Expected<Unit, std::string> finish() = 0;
};

}  // namespace vell::media
