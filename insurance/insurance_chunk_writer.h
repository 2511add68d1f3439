#pragma once
// Turns insurance mode's microphone buffers into 30-second mono AAC chunks (ADTS) in the
// buffer store: converts each buffer to the chunk's format, counts the buffers with sound,
// and seals each chunk under a name that carries its span and that share.
//
// Threads: append() on the capture thread and seal() from any thread other than the main
// one's waits both run synchronously on the writer's own queue (the caller blocks only for
// that buffer's write); activeURL and lastBufferAt are read under a lock from anywhere;
// onChunkSealed runs on the main executor.
#include <array>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "audio/aac_writer.h"
#include "audio/pcm_buffer.h"
#include "audio/resampler.h"
#include "base/clock.h"
#include "base/serial_queue.h"
#include "insurance/insurance_buffer_store.h"

namespace vell::insurance {

struct EncoderRow {
    int sampleRate;
    std::optional<int> bitRate;  // the encoder's default when absent
};

// Tried in order until one opens; the row that opened is tried alone next time.
inline constexpr std::array<EncoderRow, 5> kEncoderRows{{
    {16000, 32000},
    {16000, std::nullopt},
    {22050, std::nullopt},
    {44100, 64000},
    {44100, std::nullopt},
}};
inline constexpr double kChunkSeconds = 30;
inline constexpr double kVoicedRMS = 0.01;

// Root mean square of the first channel; 0 without samples.
double firstChannelRMS(const audio::PcmBuffer& buffer);
// Share of voiced buffers in percent, rounded to the nearest integer; 0 without buffers.
int activityPercent(int voicedBuffers, int buffers);

class InsuranceChunkWriter {
public:
    // An empty factory means the process's default AAC writer.
    explicit InsuranceChunkWriter(InsuranceBufferStore& store, media::AacWriterFactory factory = {});
    ~InsuranceChunkWriter();
    InsuranceChunkWriter(const InsuranceChunkWriter&) = delete;
    InsuranceChunkWriter& operator=(const InsuranceChunkWriter&) = delete;

    // Capture thread: writes the buffer (a buffer without frames changes nothing).
    void append(const audio::PcmBufferPtr& buffer);
    // Closes the open chunk and gives it its sealed name; nothing when none is open.
    void seal();

    std::optional<std::filesystem::path> activeURL() const;
    std::optional<WallTime> lastBufferAt() const;
    void clearLastBufferAt();
    // Why audio is not being saved (a full disk), until a write succeeds again; from anywhere.
    std::optional<std::string> writeFailure() const;
    // The table row that last opened a chunk (read on the writer's queue).
    std::optional<int> encoderIndex();

    // Set before the first buffer; called on the main executor after each seal attempt.
    std::function<void()> onChunkSealed;

    InsuranceBufferStore& store() { return store_; }

private:
    media::AacWriter* openFile();
    std::optional<std::vector<float>> convert(const audio::PcmBuffer& buffer, int outRate);
    void write(const audio::PcmBuffer& buffer);
    void sealOnQueue();
    void rollOver();
    void keepWritten();
    void setWriteFailure(std::optional<std::string> failure);
    void setActive(std::optional<std::filesystem::path> url);

    InsuranceBufferStore& store_;
    media::AacWriterFactory factory_;
    // Queue-only state.
    std::unique_ptr<media::Resampler> converter_;
    std::unique_ptr<media::AacWriter> file_;
    std::optional<std::filesystem::path> fileURL_;
    std::int64_t chunkFrames_ = 0;
    int voicedBuffers_ = 0;
    int buffers_ = 0;
    std::optional<int> encoderIndex_;
    std::vector<float> converted_;

    mutable std::mutex stateLock_;
    std::optional<std::filesystem::path> activeURL_;
    std::optional<WallTime> lastBufferAt_;
    std::optional<std::string> writeFailure_;
    std::optional<WallTime> failedAt_;

    // Last: destroyed first, after running what was posted, while the state above lives.
    SerialQueue queue_{queues::kInsurance};
};

}  // namespace vell::insurance
