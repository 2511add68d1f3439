#pragma once
// How loud each side of a conversation was, measured before the two are mixed: the
// microphone (the user) and the system audio (the others on a call). The recording file
// holds only the mix, so these levels are what lets the service tell the speakers apart.
// The meter keeps one RMS value per 0.5 s window of each side; capture threads add buffers,
// anyone reads. The metering mixer wraps a recording's mixer, feeds the meter and, when the
// recording closes, writes the levels beside the file (`<file stem>.sides.json`).
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "audio/ports.h"

namespace vell::live {

inline constexpr int kSideWindowMs = 500;
inline constexpr int kSilentDb = -100;

struct SideLevels {
    int windowMs = kSideWindowMs;
    std::vector<int> microphone;  // dBFS per window, kSilentDb for digital silence
    std::vector<int> system;
    bool operator==(const SideLevels&) const = default;

    nlohmann::json toJson() const;
    static std::optional<SideLevels> fromJson(const nlohmann::json& json);
    // "WINDOW_MS;m,m,...;s,s,..." (the header a live chunk carries).
    std::string headerValue() const;
};

// Where a recording's levels are kept until the service has them.
std::filesystem::path sideLevelsFile(const std::filesystem::path& recordingFile);

class SideLevelMeter {
public:
    void reset();
    void addMicrophone(const audio::PcmBuffer& buffer);  // any thread
    void addSystem(const audio::PcmBuffer& buffer);      // any thread
    // The windows that cover [fromMs, toMs) of the recording, both sides of equal length.
    SideLevels range(long long fromMs, long long toMs) const;
    SideLevels all() const;

private:
    struct Side {
        std::vector<int> windows;
        double sum = 0;        // squares in the window being filled
        long long frames = 0;  // frames in it
    };
    void add(Side& side, const audio::PcmBuffer& buffer);

    mutable std::mutex mutex_;
    Side microphone_, system_;
};

class SideMeteringMixer final : public audio::RecordingMixer {
public:
    SideMeteringMixer(std::unique_ptr<audio::RecordingMixer> inner, std::shared_ptr<SideLevelMeter> meter);
    void open() override;
    std::filesystem::path outputFile() const override { return inner_->outputFile(); }
    void setSystemEnabled(bool enabled) override { inner_->setSystemEnabled(enabled); }
    void appendMicrophone(audio::PcmBufferPtr buffer) override;
    void appendSystem(audio::PcmBufferPtr buffer) override;
    // Closes the file, then keeps the levels beside it.
    void finish() override;

private:
    std::unique_ptr<audio::RecordingMixer> inner_;
    std::shared_ptr<SideLevelMeter> meter_;
};

}  // namespace vell::live
