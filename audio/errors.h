#pragma once
// Audio failures carry the platform status and the failing call, so that a log line or a
// message tells exactly what refused.
#include <cstdint>
#include <stdexcept>
#include <string>

namespace vell::audio {

// A platform audio call failed; `operation` names it (for example "pa_stream_connect_record").
class CoreAudioError : public std::runtime_error {
public:
    CoreAudioError(int32_t status, std::string operation)
        : std::runtime_error("Audio error " + std::to_string(status) + " (" + operation + ")"),
          status_(status),
          operation_(std::move(operation)) {}
    int32_t status() const { return status_; }
    const std::string& operation() const { return operation_; }

private:
    int32_t status_;
    std::string operation_;
};

// The sound server is there but did not answer within its time limit (frozen, or
// overloaded): anything else that goes through it would wait just as long.
class SoundServerNotAnswering : public CoreAudioError {
public:
    using CoreAudioError::CoreAudioError;
};

// No sound server answers at all: none is running for this user, or its socket is gone.
class SoundServerAbsent : public CoreAudioError {
public:
    using CoreAudioError::CoreAudioError;
};

// The device to open was refused.
class MicCaptureError : public std::runtime_error {
public:
    static MicCaptureError deviceRejected(int32_t status) { return MicCaptureError(status); }
    int32_t status() const { return status_; }

private:
    explicit MicCaptureError(int32_t status)
        : std::runtime_error("Microphone selection failed (audio error " + std::to_string(status) + ")"), status_(status) {}
    int32_t status_;
};

// Microphone access is not allowed (a sandbox portal refused it).
class MicrophonePermissionError : public std::runtime_error {
public:
    MicrophonePermissionError() : std::runtime_error("microphone permission denied") {}
};

// The mixer could not create its output file.
class MixerOpenError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace vell::audio
