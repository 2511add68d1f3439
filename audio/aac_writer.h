#pragma once
// The port through which audio files are written: AAC from planar float blocks of any rate
// and channel count. The recording file (ADTS), its MPEG-4 fallback, the live segments and
// the insurance chunks all go through one writer; the codec binding implements it and the
// composition root installs it as the default at start-up.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/expected.h"

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
    // Closes this file on a frame boundary and goes on writing into a new one at `path`
    // with the same encoder, so the files joined end to end decode as one unbroken stream
    // (no new priming, no padded last frame). What the encoder still holds lands in the new
    // file. On failure (the new file cannot be created) the current one stays open. Only ADTS can do this.
    virtual Expected<Unit, std::string> continueInto(const std::filesystem::path& path) {
        return unexpected(path.string() + ": this writer cannot continue into another file");
    }

    virtual const AacSettings& settings() const = 0;
    // The rate the file is encoded at (what frame counts are measured in).
    int processingSampleRate() const { return settings().sampleRate; }
    // Frames accepted so far, at the file's rate.
    virtual std::int64_t framesWritten() const = 0;
    virtual const std::filesystem::path& path() const = 0;
};

// Creates (truncates) the file and writes its header. On failure nothing is left at path
// that the call created, and the error names the file and the reason.
using AacWriterFactory = std::function<Expected<std::unique_ptr<AacWriter>, std::string>(
    const std::filesystem::path& path, const AacSettings& settings)>;

// The factory of writers whose owner was given none. Set once at start-up, before the first
// recording; until then every open fails.
void setDefaultAacWriterFactory(AacWriterFactory factory);
AacWriterFactory defaultAacWriterFactory();

}  // namespace vell::media
