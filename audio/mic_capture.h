#pragma once
// Opening one microphone: a primary engine (the sound server) with a fallback engine (ALSA)
// tried on the same device when the primary cannot open it.
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "audio/ports.h"

namespace vell::audio {

// One way of reading a microphone. MicCapture calls, in this order: selectDevice (only when
// a device was asked for), installTap, prepare, start; and to close: removeTap, stop.
class MicCaptureEngine {
public:
    virtual ~MicCaptureEngine() = default;
    // Makes the engine read from that device; throws MicCaptureError::deviceRejected.
    virtual void selectDevice(const MicrophoneTarget& device) = 0;
    // Starts delivering input blocks (in the device's own format) to the handler.
    virtual void installTap(BufferHandler handler) = 0;
    virtual void removeTap() = 0;
    virtual void prepare() = 0;
    // Throws CoreAudioError when the device cannot be started.
    virtual void start() = 0;
    virtual void stop() = 0;
    // Called from any thread when the device went away, moved, or changed format; never
    // after stop().
    virtual void setDeviceChangeHandler(std::function<void()> handler) = 0;
    // True when the engine records the system default although a device was selected.
    virtual bool runsOnDefault() const { return false; }
};

using MicCaptureEngineFactory = std::function<std::unique_ptr<MicCaptureEngine>()>;

class MicCapture final : public MicrophoneInput {
public:
    explicit MicCapture(MicCaptureEngineFactory makeEngine, MicCaptureEngineFactory makeFallbackEngine = {});
    // The engines of makeDefault(), installed once at start-up by the composition root.
    static void setDefaultEngines(MicCaptureEngineFactory makeEngine, MicCaptureEngineFactory makeFallbackEngine);
    // The installed engines (the sound server, then ALSA); devices that refuse to open are
    // recorded in the microphone health of MicrophoneSettings.
    static std::unique_ptr<MicCapture> makeDefault();
    // Insurance mode listens for hours: the composition root may install a primary engine
    // that delivers the chunks' own format in longer blocks. Without one, as makeDefault().
    static void setListeningEngine(MicCaptureEngineFactory makeEngine);
    static std::unique_ptr<MicCapture> makeForListening();
    ~MicCapture() override;

    // Opens the primary engine, or the fallback on the same device when the primary fails;
    // throws only the last error. Starting while open reopens.
    void start(const MicrophoneTarget& target, BufferHandler handler, std::function<void()> onDeviceChange) override;
    void stop() override;
    bool isRunning() const override { return running_; }
    bool fellBackToDefault() const override { return fellBackToDefault_; }
    bool usingFallbackEngine() const { return usingFallback_; }

    // Told the UID of a requested device that no engine could open, and of one that opened.
    void setHealthReporter(std::function<void(const std::string& uid, bool failed)> reporter);

private:
    void open(std::unique_ptr<MicCaptureEngine> engine, const MicrophoneTarget& target, const BufferHandler& handler,
              const std::function<void()>& onDeviceChange);
    void close();

    MicCaptureEngineFactory makeEngine_;
    MicCaptureEngineFactory makeFallbackEngine_;
    std::function<void(const std::string&, bool)> healthReporter_;
    std::mutex mutex_;  // one open or close at a time
    std::unique_ptr<MicCaptureEngine> engine_;
    bool tapInstalled_ = false;
    std::atomic<bool> running_{false};
    std::atomic<bool> fellBackToDefault_{false};
    std::atomic<bool> usingFallback_{false};
};

}  // namespace vell::audio
