#include "audio/mic_capture.h"

#include <stdexcept>

#include "audio/errors.h"
#include "audio/microphone_settings.h"
#include "base/log.h"

namespace vell::audio {

namespace {
const log::Logger& logger() {
    static const log::Logger instance("MicCapture");
    return instance;
}
}  // namespace

namespace {
std::mutex gDefaultEnginesMutex;
MicCaptureEngineFactory gDefaultEngine;
MicCaptureEngineFactory gDefaultFallbackEngine;
MicCaptureEngineFactory gListeningEngine;

std::unique_ptr<MicCapture> makeWith(MicCaptureEngineFactory engine, MicCaptureEngineFactory fallback) {
    if (!engine) throw std::logic_error("vell: no microphone engine installed");
    auto capture = std::make_unique<MicCapture>(std::move(engine), std::move(fallback));
    capture->setHealthReporter([](const std::string& uid, bool failed) { MicrophoneSettings::reportDeviceHealth(uid, failed); });
    return capture;
}
}  // namespace

void MicCapture::setDefaultEngines(MicCaptureEngineFactory makeEngine, MicCaptureEngineFactory makeFallbackEngine) {
    std::lock_guard lock(gDefaultEnginesMutex);
    gDefaultEngine = std::move(makeEngine);
    gDefaultFallbackEngine = std::move(makeFallbackEngine);
}

MicCapture::MicCapture(MicCaptureEngineFactory makeEngine, MicCaptureEngineFactory makeFallbackEngine)
    : makeEngine_(std::move(makeEngine)), makeFallbackEngine_(std::move(makeFallbackEngine)) {}

std::unique_ptr<MicCapture> MicCapture::makeDefault() {
    std::lock_guard lock(gDefaultEnginesMutex);
    return makeWith(gDefaultEngine, gDefaultFallbackEngine);
}

void MicCapture::setListeningEngine(MicCaptureEngineFactory makeEngine) {
    std::lock_guard lock(gDefaultEnginesMutex);
    gListeningEngine = std::move(makeEngine);
}

std::unique_ptr<MicCapture> MicCapture::makeForListening() {
    std::lock_guard lock(gDefaultEnginesMutex);
    return makeWith(gListeningEngine ? gListeningEngine : gDefaultEngine, gDefaultFallbackEngine);
}

MicCapture::~MicCapture() { stop(); }

void MicCapture::setHealthReporter(std::function<void(const std::string&, bool)> reporter) {
    std::lock_guard lock(mutex_);
    healthReporter_ = std::move(reporter);
}

void MicCapture::start(const MicrophoneTarget& target, BufferHandler handler, std::function<void()> onDeviceChange) {
    std::lock_guard lock(mutex_);
    close();
    const bool deviceRequested = target.uid.has_value() || target.deviceID.has_value();
    try {
        open(makeEngine_(), target, handler, onDeviceChange);
        usingFallback_ = false;
    } catch (const std::exception& primaryError) {
        // The fallback's default device goes through the same server (ALSA's pulse
        // plugin), so a server that does not answer would only be waited for again.
        const bool serverFrozen = dynamic_cast<const SoundServerNotAnswering*>(&primaryError) != nullptr;
        if (!makeFallbackEngine_ || serverFrozen) {
            if (deviceRequested && target.uid && healthReporter_) healthReporter_(*target.uid, true);
            throw;
        }
        logger().info(std::string("primary microphone engine failed, trying the fallback: ") + primaryError.what());
        const auto primary = std::current_exception();
        try {
            open(makeFallbackEngine_(), target, handler, onDeviceChange);
            usingFallback_ = true;
        } catch (const std::exception& fallbackError) {
            logger().error(std::string("fallback microphone engine failed too: ") + fallbackError.what());
            if (deviceRequested && target.uid && healthReporter_) healthReporter_(*target.uid, true);
            // With no sound server at all, that is what the user has to fix, not the fallback's device.
            if (dynamic_cast<const SoundServerAbsent*>(&primaryError)) std::rethrow_exception(primary);
            throw;
        }
    }
    fellBackToDefault_ = deviceRequested && engine_ && engine_->runsOnDefault();
    if (target.uid && healthReporter_) healthReporter_(*target.uid, fellBackToDefault_);
}

void MicCapture::open(std::unique_ptr<MicCaptureEngine> engine, const MicrophoneTarget& target, const BufferHandler& handler,
                      const std::function<void()>& onDeviceChange) {
    engine_ = std::move(engine);
    if (onDeviceChange) engine_->setDeviceChangeHandler(onDeviceChange);
    try {
        if (target.uid || target.deviceID) engine_->selectDevice(target);
        engine_->installTap(handler);
        tapInstalled_ = true;
        engine_->prepare();
        engine_->start();
    } catch (...) {
        close();
        throw;
    }
    running_ = true;
}

void MicCapture::stop() {
    std::lock_guard lock(mutex_);
    close();
}

void MicCapture::close() {
    if (engine_) {
        // No reopen requests from an engine that is going away.
        engine_->setDeviceChangeHandler({});
        if (tapInstalled_) engine_->removeTap();
        engine_->stop();
    }
    engine_.reset();
    tapInstalled_ = false;
    running_ = false;
    fellBackToDefault_ = false;
}

}  // namespace vell::audio
