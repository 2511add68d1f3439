#include "app/composition.h"

#include <mutex>

#include "audio/realtime_mixer.h"
#include "audio/speech_activity_detector.h"
#include "recording/recorder_service.h"

namespace vell::app {

namespace {
std::mutex gLock;
std::function<std::optional<std::string>()> gAccountSource;
}  // namespace

void setAccountSource(std::function<std::optional<std::string>()> source) {
    std::lock_guard lock(gLock);
    gAccountSource = std::move(source);
}

recording::RecorderParts recorderParts() {
    recording::RecorderParts parts;
    // Until a microphone is wired in, starts fail with a clear message; the pending list
    // and the recovery of interrupted recordings work.
    parts.makeMixer = [](const std::filesystem::path& file, double sampleRate) -> std::unique_ptr<audio::RecordingMixer> {
        return std::make_unique<audio::RealtimeMixer>(file, sampleRate);
    };
    parts.speech = std::make_shared<audio::SpeechActivityDetector>();
    parts.accountID = []() -> std::optional<std::string> {
        std::function<std::optional<std::string>()> source;
        {
            std::lock_guard lock(gLock);
            source = gAccountSource;
        }
        return source ? source() : std::nullopt;
    };
    parts.hasServiceSession = [] { return false; };
    return parts;
}

void installComposition() { recording::RecorderService::setSharedPartsProvider(&recorderParts); }

}  // namespace vell::app
