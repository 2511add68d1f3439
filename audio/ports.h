#pragma once
// The audio parts a recording is made of, as the recorder and the insurance recorder see
// them. Real implementations sit on the sound server and FFmpeg; tests use fakes.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "audio/pcm_buffer.h"
#include "base/clock.h"

namespace vell::audio {

using BufferHandler = std::function<void(PcmBufferPtr)>;

// What a capture engine is asked to open: a device by UID and platform index, or the
// system default when both are absent.
struct MicrophoneTarget {
    std::optional<std::string> uid;
    std::optional<uint32_t> deviceID;
    bool operator==(const MicrophoneTarget&) const = default;
};

// An opened microphone. start() throws MicCaptureError, CoreAudioError or
// MicrophonePermissionError. Buffers arrive on the engine's I/O thread; onDeviceChange is
// called (from any thread) when the device went away, moved, or changed format, so the
// owner can reopen it.
class MicrophoneInput {
public:
    virtual ~MicrophoneInput() = default;
    virtual void start(const MicrophoneTarget& target, BufferHandler handler, std::function<void()> onDeviceChange) = 0;
    virtual void stop() = 0;  // safe when nothing is open
    virtual bool isRunning() const = 0;
    virtual bool fellBackToDefault() const = 0;
};

// Resolves the user's stored choice into what to open.
class MicrophoneChooser {
public:
    virtual ~MicrophoneChooser() = default;
    virtual MicrophoneTarget recordingTarget() = 0;
    virtual MicrophoneTarget insuranceTarget() = 0;
    // The recording choice names a microphone that is not connected, so recordingTarget()
    // is the system default ("Disconnected microphone").
    virtual bool recordingFellBackToDefault() { return false; }
};

// What the computer plays. start() throws CoreAudioError and leaves nothing behind on
// failure; calling it while running does nothing. Buffers arrive on the capture thread.
class SystemAudioSource {
public:
    virtual ~SystemAudioSource() = default;
    virtual void start(BufferHandler handler) = 0;
    virtual void stop() = 0;
    virtual bool isRunning() const = 0;
};

// The mixer that writes the recording file (one per recording).
class RecordingMixer {
public:
    virtual ~RecordingMixer() = default;
    // Creates the file; throws MixerOpenError when neither the AAC nor the MPEG-4 file
    // can be created.
    virtual void open() = 0;
    // The file actually written (the ".m4a" fallback may replace the ".aac" name).
    virtual std::filesystem::path outputFile() const = 0;
    virtual void setSystemEnabled(bool enabled) = 0;
    virtual void appendMicrophone(PcmBufferPtr buffer) = 0;  // any thread
    virtual void appendSystem(PcmBufferPtr buffer) = 0;      // any thread
    // Writes what is left, closes the file; never call from the mixer's own queue.
    virtual void finish() = 0;

    // Callbacks run on the mixer's queue.
    std::function<void(PcmBufferPtr)> onMixedBuffer;
    std::function<void(PcmBufferPtr)> onSystemBuffer;
    std::function<void(const std::string& error)> onWriteError;
};

using MixerFactory = std::function<std::unique_ptr<RecordingMixer>(const std::filesystem::path& file, double sampleRate)>;

// Tells when somebody last spoke in the mixed audio.
class SpeechDetector {
public:
    virtual ~SpeechDetector() = default;
    virtual void analyze(PcmBufferPtr buffer) = 0;  // hops to its own queue
    virtual void reset() = 0;
    virtual bool usable() const = 0;
    virtual std::optional<WallTime> lastSpeech() const = 0;
};

// Cuts the mixed audio into short sealed files for the live advisor.
class LiveSegmentSink {
public:
    virtual ~LiveSegmentSink() = default;
    virtual void begin(const std::string& sessionToken) = 0;
    virtual void append(PcmBufferPtr buffer) = 0;
    virtual void finish() = 0;
};

// True when every sample of every channel is exactly zero: what a sound server delivers
// for an idle output.
bool isDigitalSilence(const PcmBuffer& buffer);

}  // namespace vell::audio
