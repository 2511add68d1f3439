#pragma once
// What a recorder is made of. The composition of the program fills it; tests fill it with
// fakes. A recorder whose audio parts are absent still keeps the pending list, but a
// start fails with a clear message.
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "audio/ports.h"

namespace vell::recording {

// The live advisor's side of a recording (all optional).
struct LiveAdvisorHooks {
    // Asked when a recording starts while the service session exists; gives the live
    // session id when one was opened.
    std::function<std::optional<std::string>(const std::string& recordingID)> begin;
    // A user-initiated stop ended the recording.
    std::function<void(const std::string& recordingID)> recordingEnded;
    // A live session is running, so mixed audio goes to the live segments. Called from
    // the mixer's queue.
    std::function<bool()> isActive;
};

struct RecorderParts {
    std::shared_ptr<audio::MicrophoneInput> microphone;
    std::shared_ptr<audio::MicrophoneChooser> chooser;        // the system default when absent
    std::shared_ptr<audio::SystemAudioSource> systemAudio;    // microphone-only when absent
    audio::MixerFactory makeMixer;
    std::shared_ptr<audio::SpeechDetector> speech;            // silence then judged by system audio only
    std::shared_ptr<audio::LiveSegmentSink> liveSegments;
    LiveAdvisorHooks liveAdvisor;
    // The signed-in account, stamped on new recordings.
    std::function<std::optional<std::string>()> accountID;
    // The service session exists (live sessions need it).
    std::function<bool()> hasServiceSession;

    bool canRecord() const { return microphone && makeMixer; }
};

}  // namespace vell::recording
