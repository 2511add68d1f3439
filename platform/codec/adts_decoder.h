#pragma once
// Reads an ADTS AAC file back to PCM with libavcodec alone (its AAC parser finds the frames),
// so the programs need not load libavformat to play a preview.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "base/expected.h"

namespace vell::media {

struct DecodedPcm {
    int sampleRate = 0;
    int channels = 0;
    std::vector<int16_t> samples;  // interleaved
    double seconds() const { return sampleRate && channels ? double(samples.size()) / channels / sampleRate : 0; }
};

// The whole file; an error names what failed. Damaged frames are skipped.
Expected<DecodedPcm, std::string> decodeAdtsFile(const std::filesystem::path& file);

}  // namespace vell::media
