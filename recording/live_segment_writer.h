#pragma once
// Cuts the mixed audio of a running recording into 30-second MPEG-4 AAC files for the live
// advisor. A segment is handed over only once its index ("moov") is on disk, so the
// consumer never uploads a half-written file.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "audio/aac_writer.h"
#include "audio/ports.h"
#include "base/executor.h"
#include "base/serial_queue.h"

namespace vell::recording {

// True when the file's top-level boxes include "moov" (a finished MPEG-4 file).
bool hasTopLevelMoov(const std::filesystem::path& file);

class LiveSegmentWriter final : public audio::LiveSegmentSink {
public:
    static constexpr std::int64_t kSegmentFrames = 1'323'000;  // 30 s at 44.1 kHz
    static constexpr int kSampleRate = 44100;
    static constexpr int kChannels = 2;
    static constexpr int kBitRate = 64'000;

    struct Options {
        media::AacWriterFactory writerFactory;  // FFmpeg when absent
        std::filesystem::path directory;        // "live-segments" in Vell's private temporary folder when empty
        Executor* mainExecutor = nullptr;       // runtime::main() when absent
        double sealTimeoutSeconds = 2.0;
        double sealPollSeconds = 0.05;
        std::int64_t segmentFrames = kSegmentFrames;  // shorter only for tests and demos
    };

    explicit LiveSegmentWriter(Options options);
    LiveSegmentWriter() : LiveSegmentWriter(Options{}) {}
    // Waits for seal checks under way (at most the seal time-out).
    ~LiveSegmentWriter() override;

    // Each sealed segment, on the main executor.
    std::function<void(const std::filesystem::path& segment)> onSegment;

    void begin(const std::string& sessionToken) override;
    void append(audio::PcmBufferPtr buffer) override;  // the mixing thread
    void finish() override;

    // The consumer is done with a handed-over segment: forget it and delete the file.
    void release(const std::filesystem::path& segment);
    // Deletes segment files of earlier runs: regular files named as this writer names its
    // segments and not awaiting release. Nothing else in the folder, and never a link.
    void cleanUpStaleFiles();

    // The folder segments go to, made private (0700) when missing; empty when it is refused
    // (a link, or a folder of someone else's): then no segment is written.
    std::filesystem::path directory() const;
    std::set<std::string> pendingHandoffs() const;
    int segmentIndex() const;
    std::int64_t totalFrames() const;

private:
    std::filesystem::path segmentPath(int index) const;  // under lock_, in folder_
    void openSegment();                            // under lock_
    std::optional<std::filesystem::path> closeSegment();  // under lock_; the closed file, if any
    void handOver(std::filesystem::path file, bool final);

    media::AacWriterFactory writerFactory_;
    std::filesystem::path directory_;
    Executor* mainExecutor_;
    double sealTimeout_;
    double sealPoll_;
    std::int64_t segmentFrames_;

    mutable std::mutex lock_;
    std::filesystem::path folder_;  // resolved when a recording begins
    bool active_ = false;
    std::unique_ptr<media::AacWriter> segmentFile_;
    std::optional<std::filesystem::path> segmentURL_;
    std::int64_t totalFrames_ = 0;
    std::int64_t segmentStartFrames_ = 0;
    int segmentIndex_ = 0;
    std::set<std::string> pendingHandoffs_;
    std::string sessionToken_;

    // Seal checks sleep between polls, so they get their own thread.
    SerialQueue sealQueue_{"vell.live-segments.seal"};
};

}  // namespace vell::recording
