#pragma once
// Writes AAC audio files (FFmpeg's native encoder) from planar float blocks of any rate and
// channel count: the recording file (ADTS), its MPEG-4 fallback, the live segments and
// the insurance chunks all go through this one writer.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/expected.h"

namespace vell::media {

enum class AacContainer {
    adts,   // raw ADTS frames: every frame stands alone, so a cut-off file still plays
    mpeg4,  // ".m4a": needs its index ("moov") written by finish()
};

struct AacSettings {
    AacContainer container = AacContainer::adts;
    int sampleRate = 44100;
    int channels = 2;
    std::optional<int> bitRate;  // bit/s; the encoder's default when absent
};

class AacWriter {
public:
    virtual ~AacWriter() = default;

    // Appends planar float samples (one pointer per channel). Blocks whose rate or channel
    // count differ from the file's are converted first.
    virtual Expected<Unit, std::string> write(const float* const* planes, int channels, std::size_t frames,
                                              int sampleRate) = 0;
    // Pushes everything encoded so far to the kernel and then to stable storage, so a
    // killed process loses at most what the encoder still holds (about 50 ms).
    virtual Expected<Unit, std::string> syncToDisk() = 0;
    // Encodes what is left, writes the trailer (the MPEG-4 index) and closes the file.
    // Further writes fail. Destroying an unfinished writer finishes it.
    virtual Expected<Unit, std::string> finish() = 0;

    virtual const AacSettings& settings() const = 0;
    // The rate the file is encoded at (what frame counts are measured in).
    int processingSampleRate() const { return settings().sampleRate; }
    // Frames accepted so far, at the file's rate.
    virtual std::int64_t framesWritten() const = 0;
    virtual const std::filesystem::path& path() const = 0;
};

// Creates (truncates) the file and writes its header. On failure nothing is left at path
// that this call created, and the error names the file and the reason.
Expected<std::unique_ptr<AacWriter>, std::string> openAacWriter(const std::filesystem::path& path,
                                                                const AacSettings& settings);

using AacWriterFactory = std::function<Expected<std::unique_ptr<AacWriter>, std::string>(
    const std::filesystem::path& path, const AacSettings& settings)>;

}  // namespace vell::media
