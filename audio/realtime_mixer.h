#pragma once
// Mixes the microphone and the system audio of a recording into one AAC file while the
// recording runs: both streams are converted to the target format, summed with fixed gains
// every 0.1 s, written and synced to disk, so a crash loses at most the last tick.
// The file keeps to the wall clock: a stream that delivers faster than real time (a backlog
// let go at once) loses its oldest audio, so the file is as long as the recording ran and
// every sound sits where it was heard.
#include <array>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "audio/aac_writer.h"
#include "audio/dropped_audio.h"
#include "audio/echo_cancel_stage.h"
#include "audio/ports.h"
#include "audio/resampler.h"
#include "base/clock.h"
#include "base/executor.h"
#include "base/serial_queue.h"

namespace vell::audio {

class RealtimeMixer final : public RecordingMixer {
public:
    static constexpr float kMicGain = 1.0f;
    static constexpr float kSystemGain = 0.85f;
    static constexpr double kTickSeconds = 0.1;
    static constexpr double kStallSeconds = 0.5;
    static constexpr int kBitRate = 128'000;
    // How far a stream, and the file, may run ahead of the time since open. A capture can
    // only be behind the clock; this covers the stamping of blocks. Half a second would let
    // as much of every backlog into the file, and shift what follows by as much.
    static constexpr double kAheadSeconds = 0.1;

    struct Options {
        const Clock* clock = nullptr;          // the runtime clock when absent
        media::AacWriterFactory writerFactory;  // FFmpeg when absent
        // false: no mixer thread; the owner calls tick() and every step runs on the calling
        // thread, one caller at a time (tests, offline mixing).
        bool automaticTicks = true;
        // When present, the microphone is cleaned of the system audio's echo before the
        // mix (see EchoCancelStage); absent, it is mixed as it comes.
        EchoCancellation* echo = nullptr;
        // Whether streams are held to the clock; by default only when the mixer ticks by
        // itself (driven mixing of files runs faster than real time on purpose).
        std::optional<bool> keepToClock;
        DroppedAudio* dropped = nullptr;  // counts what was dropped, when present
    };

    // The file is created by open(); `file` names the ".aac" to try first.
    RealtimeMixer(std::filesystem::path file, double sampleRate, Options options);
    RealtimeMixer(std::filesystem::path file, double sampleRate) : RealtimeMixer(std::move(file), sampleRate, Options{}) {}
    ~RealtimeMixer() override;

    void open() override;
    std::filesystem::path outputFile() const override;
    void setSystemEnabled(bool enabled) override;
    void appendMicrophone(PcmBufferPtr buffer) override;
    void appendSystem(PcmBufferPtr buffer) override;
    void finish() override;

    // One mixing step (on the mixer's queue, or on the caller's thread when driven); returns once done.
    void tick(bool force = false);
    // Returns once every block appended so far has been taken in.
    void drain();

    double sampleRate() const { return sampleRate_; }

private:
    struct Stream {
        std::unique_ptr<media::Resampler> converter;
        std::array<std::vector<float>, 2> samples;
        double lastArrival = 0;
        float gain = 1.0f;
        std::size_t droppedRun = 0;   // frames dropped in the burst under way, not yet logged
    };

    // A block handed over by a capture thread, stamped when it arrived; without a block,
    // a change of whether the system stream takes part.
    struct Arrival {
        PcmBufferPtr buffer;
        bool isSystem = false;
        double at = 0;
        bool enablesSystem = false;
    };

    void onMixer(const Task& work);
    void deliver(PcmBufferPtr buffer, bool isSystem);
    void takeArrivals();
    void take(Stream& stream, bool isSystem, const PcmBufferPtr& buffer, double arrivedAt);
    void mix(bool force);
    // Frames of the stream's audio placed so far: written, waiting, and held by the canceller.
    std::size_t position(const Stream& stream) const;
    std::size_t framesSinceOpen(double at) const;
    // Drops the stream's oldest waiting frames beyond `limit`; returns how many it could not
    // drop (the caller takes them off the head of the block that arrived).
    std::size_t dropOldest(Stream& stream, std::size_t limit);
    void countDropped(Stream& stream, bool isSystem, std::size_t frames);
    void logDropped(Stream& stream, bool isSystem);
    void reportWriteError(const std::string& error);

    // Touched only on queue_ (after construction).
    std::filesystem::path requestedFile_;
    double sampleRate_;
    const Clock& clock_;
    media::AacWriterFactory writerFactory_;
    bool automaticTicks_;
    bool keepToClock_;
    DroppedAudio* dropped_;
    double openedAt_ = 0;
    std::size_t written_ = 0;  // frames handed to the file since open
    std::unique_ptr<media::AacWriter> file_;
    Stream mic_;
    Stream system_;
    std::unique_ptr<EchoCancelStage> echo_;
    bool systemEnabled_ = false;
    TimerHandle flushTimer_;
    bool terminalWriteErrorReported_ = false;
    std::vector<std::vector<float>> scratch_;
    std::vector<const float*> planes_;
    std::array<std::vector<float>, 2> trimmed_;  // a block's newest part, when its head was dropped

    // Capture threads leave their blocks here and the queue takes them in at each tick:
    // waking the mixer thread for every 20 ms block would cost more than the mixing.
    std::mutex arrivalsLock_;
    std::vector<Arrival> arrivals_;
    bool finished_ = false;  // guarded by arrivalsLock_: late blocks are dropped, not kept
    std::vector<Arrival> taking_;  // reused on the queue so that steady state allocates nothing

    mutable std::mutex outputLock_;
    std::filesystem::path outputFile_;

    // Guards the queue pointer so that calls racing with destruction never reach a dead queue.
    std::mutex postLock_;
    std::unique_ptr<SerialQueue> queue_;  // only when the mixer ticks by itself
    std::mutex drivenLock_;               // otherwise: one caller at a time
};

}  // namespace vell::audio
