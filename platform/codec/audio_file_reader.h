#pragma once
// Reads the first audio stream of any file FFmpeg can open, as planar float blocks at the
// stream's own rate and channel count (one block per decoded frame).
#include <filesystem>
#include <functional>
#include <string>

#include "audio/pcm_buffer.h"
#include "base/expected.h"

namespace vell::media {

// Calls onBlock for each block in order; the error names the file and what failed.
Expected<Unit, std::string> readAudioFile(const std::filesystem::path& file,
                                          const std::function<void(audio::PcmBufferPtr)>& onBlock);

}  // namespace vell::media
