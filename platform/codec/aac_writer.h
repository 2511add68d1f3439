#pragma once
// The AAC writer on FFmpeg's native encoder, behind the audio layer's writer port.
#include <filesystem>
#include <memory>
#include <string>

#include "audio/aac_writer.h"

namespace vell::media {

// Creates (truncates) the file and writes its header. On failure nothing is left at path
// that this call created, and the error names the file and the reason.
Expected<std::unique_ptr<AacWriter>, std::string> openAacWriter(const std::filesystem::path& path,
                                                                const AacSettings& settings);

}  // namespace vell::media
