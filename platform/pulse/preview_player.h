#pragma once
// The preview player over the sound server: the decoded file goes to a playback stream
// (libpulse's simple API) from the player's own thread in 50 ms blocks; the position follows
// the clock from the first block on, never past what was written. Pause drops what the
// server holds and keeps the place; stop ends the thread.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "insurance/preview_player.h"

namespace vell::platform {

struct PlaybackPcm {
    int sampleRate = 0;
    int channels = 0;
    std::vector<int16_t> samples;  // interleaved
};
using PcmDecoder = std::function<std::optional<PlaybackPcm>(const std::filesystem::path&)>;

std::unique_ptr<insurance::PreviewPlayer> makePulsePreviewPlayer(PcmDecoder decode);

}  // namespace vell::platform
