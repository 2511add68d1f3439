#include "insurance/insurance_recorder.h"

#include <algorithm>
#include <thread>

#include "audio/capture_messages.h"
#include "audio/error_sentence.h"
#include "audio/errors.h"
#include "audio/mic_capture.h"
#include "audio/microphone_settings.h"
#include "base/log.h"
#include "base/preference_keys.h"
#include "base/runtime.h"
#include "base/serial_queue.h"
#include "base/user_defaults.h"
#include "insurance/insurance_messages.h"

namespace vell::insurance {

namespace {
const log::Logger kLog("InsuranceRecorder");

double secondsBetween(WallTime from, WallTime to) { return std::chrono::duration<double>(to - from).count(); }
}  // namespace

int clampWindowMinutes(long long minutes) {
    if (minutes < 1) return 15;
    return static_cast<int>(std::clamp<long long>(minutes, 5, 60));
}

std::int64_t byteCap(int windowMinutes) {
    return std::max<std::int64_t>(std::int64_t(std::max(windowMinutes, 1)) * 2'000'000, 32'000'000);
}

InsuranceRecorder::InsuranceRecorder(InsuranceRecorderParts parts, UserDefaults& defaults)
    : parts_(std::move(parts)), defaults_(defaults) {
    if (!parts_.pause) parts_.pause = [](double s) { std::this_thread::sleep_for(std::chrono::duration<double>(s)); };
    if (!parts_.micQueue) parts_.micQueue = std::make_shared<SerialQueue>(queues::kInsuranceMic);
    store_ = std::make_shared<InsuranceBufferStore>(parts_.directory.empty() ? InsuranceBufferStore::defaultDirectory()
                                                                            : parts_.directory);
    writer_ = std::make_shared<InsuranceChunkWriter>(*store_, parts_.writerFactory);
    windowMinutes.set(clampWindowMinutes(defaults_.integerValue(prefs::kInsuranceWindowMinutes).value_or(0)));
    isEnabled.set(defaults_.boolValue(prefs::kInsuranceEnabled).value_or(false));
    std::weak_ptr<int> alive = alive_;
    writer_->onChunkSealed = [this, alive] {
        if (!alive.expired()) prune();
    };
}

InsuranceRecorder::~InsuranceRecorder() {
    alive_.reset();
    watchdog_.cancel();
    pendingRestart_.cancel();
    writer_->onChunkSealed = nullptr;
}

void InsuranceRecorder::launch(Published<bool>* asleep) {
    if (launched_) return;
    launched_ = true;
    // A buffer on disk at start was left by a run that ended without its quit (a crash, a
    // power cut): nobody chose to keep it, so it goes before anything is recorded.
    parts_.micQueue->post([store = store_] {
        if (!store->chunks().empty()) {
            log::Logger("Insurance").info("erased an insurance buffer left by an earlier run");
            store->removeAll();
        }
    });
    std::weak_ptr<int> alive = alive_;
    if (asleep) {
        sleepWatch_ = asleep->subscribe([this, alive](bool willSleep) {
            runtime::runOnMain([this, alive, willSleep] {
                if (alive.expired()) return;
                asleep_ = willSleep;
                if (willSleep) stopListening();
                else scheduleRestart();
            });
        });
    }
    if (parts_.watchDevices) {
        deviceWatch_ = parts_.watchDevices([this, alive] {
            if (!alive.expired()) devicesChanged();
        });
    }
    if (isEnabled.get()) startListening();
}

void InsuranceRecorder::acceptPrivacyAndEnable() {
    defaults_.set(prefs::kInsurancePrivacyAccepted, true);
    defaults_.set(prefs::kInsuranceEnabled, true);
    isEnabled.set(true);
    startListening();
}

bool InsuranceRecorder::privacyAccepted() const {
    return defaults_.boolValue(prefs::kInsurancePrivacyAccepted).value_or(false);
}

void InsuranceRecorder::disable() {
    defaults_.set(prefs::kInsuranceEnabled, false);
    isEnabled.set(false);
    watchdog_.cancel();
    stopListening();
    parts_.micQueue->post([store = store_] { store->removeAll(); });
}

void InsuranceRecorder::shutdown(std::function<void()> done) {
    watchdog_.cancel();
    pendingRestart_.cancel();
    ++stops_;
    isListening.set(false);
    // Whichever comes first, the stopped microphone or the time limit, erases the buffer;
    // the limit stays inside the host's own so the erase always happens before the exit.
    auto finished = std::make_shared<bool>(false);
    auto finish = [store = store_, finished, done = std::move(done)] {
        if (*finished) return;
        *finished = true;
        store->removeAll();
        if (done) done();
    };
    auto limit = runtime::main().postAfter(kShutdownWaitSeconds * 0.9, finish);
    parts_.micQueue->post([mic = parts_.microphone, writer = writer_, finish, limit] {
        mic->stop();
        writer->seal();
        runtime::main().post([finish, limit] {
            limit.cancel();
            finish();
        });
    });
}

int InsuranceRecorder::setWindowMinutes(long long minutes) {
    const int kept = clampWindowMinutes(minutes);
    defaults_.set(prefs::kInsuranceWindowMinutes, kept);
    windowMinutes.set(kept);
    prune();
    return kept;
}

void InsuranceRecorder::prune() {
    const int minutes = windowMinutes.get();
    store_->prune(runtime::clock().now(), minutes * 60.0, writer_->activeURL(), byteCap(minutes));
}

void InsuranceRecorder::startListening() {
    if (!isEnabled.get() || isListening.get() || starting_) return;
    std::weak_ptr<int> alive = alive_;
    if (!watchdog_.active()) {
        watchdog_ = runtime::main().repeat(kWatchdogSeconds, [this, alive] {
            if (!alive.expired()) watchdogTick();
        });
    }
    InsuranceDevice device = parts_.resolveDevice ? parts_.resolveDevice() : InsuranceDevice{};
    writer_->clearLastBufferAt();
    starting_ = true;
    const std::uint64_t stopsAtStart = stops_;
    auto onDeviceChange = [this, alive] {
        runtime::main().post([this, alive] {
            if (alive.expired() || !isEnabled.get() || !isListening.get()) return;
            kLog.info("the insurance microphone changed or went away; reopening");
            restart();
        });
    };
    parts_.micQueue->post([this, alive, mic = parts_.microphone, writer = writer_, device, stopsAtStart, onDeviceChange] {
        StartOutcome outcome;
        auto handler = [writer](audio::PcmBufferPtr buffer) { writer->append(buffer); };
        auto attempt = [&](const audio::MicrophoneTarget& target) {
            try {
                mic->start(target, handler, onDeviceChange);
                outcome = StartOutcome{true, outcome.fellBack, false, {}};
            } catch (const audio::MicrophonePermissionError& e) {
                outcome = StartOutcome{false, outcome.fellBack, true, e.what()};
            } catch (const std::exception& e) {
                outcome = StartOutcome{false, outcome.fellBack, false, audio::failureSentence(e)};
            }
        };
        if (mic->isRunning()) {
            outcome.ok = true;
        } else {
            const bool deviceResolved = device.target.uid || device.target.deviceID;
            attempt(device.target);
            if (!outcome.ok && deviceResolved && !outcome.permissionDenied) {
                outcome.fellBack = true;
                attempt(audio::MicrophoneTarget{});
            }
        }
        runtime::main().post([this, alive, outcome, device, stopsAtStart] {
            if (!alive.expired()) finishStart(outcome, device, stopsAtStart);
        });
    });
}

void InsuranceRecorder::finishStart(const StartOutcome& outcome, const InsuranceDevice& device,
                                    std::uint64_t stopsAtStart) {
    starting_ = false;
    // A stop, a disable or a shutdown that came while the start was in flight has already
    // closed the microphone behind it on the queue: this start does not count.
    if (stops_ != stopsAtStart || !isEnabled.get()) return;
    if (outcome.ok) {
        isListening.set(true);
        listeningSince_ = runtime::clock().now();
        listeningDeviceUID_ = device.uid;
        std::optional<std::string> name = device.name;
        if (outcome.fellBack || !name) name = parts_.defaultInputName ? parts_.defaultInputName() : std::nullopt;
        listeningDeviceName.set(name);
        lastError.set(std::nullopt);
        kLog.info("insurance mode is listening" + (name ? " on " + *name : std::string()));
        return;
    }
    const std::string message = outcome.permissionDenied ? messages::kNeedsPermission.str()
                                                         : messages::kCouldNotOpen.str() + outcome.error;
    kLog.error(message);
    lastError.set(message);
}

void InsuranceRecorder::stopListening() {
    pendingRestart_.cancel();
    ++stops_;
    isListening.set(false);
    listeningDeviceUID_.reset();
    parts_.micQueue->post([mic = parts_.microphone, writer = writer_] {
        mic->stop();
        writer->seal();
    });
}

void InsuranceRecorder::restart() {
    if (!isEnabled.get()) return;
    stopListening();
    parts_.micQueue->post([pause = parts_.pause] { pause(kRestartPauseSeconds); });
    startListening();
}

void InsuranceRecorder::scheduleRestart() {
    // After a wake the microphone was stopped at will-sleep; it comes back 2 s later, when
    // the audio devices have settled.
    if (!isEnabled.get()) return;
    pendingRestart_.cancel();
    std::weak_ptr<int> alive = alive_;
    pendingRestart_ = runtime::main().postAfter(kWakeRestartSeconds, [this, alive] {
        if (!alive.expired()) restart();
    });
}

void InsuranceRecorder::watchdogTick() {
    if (!isEnabled.get() || asleep_) return;
    if (!isListening.get()) return startListening();
    const WallTime now = runtime::clock().now();
    const WallTime since = writer_->lastBufferAt().value_or(listeningSince_.value_or(now));
    if (secondsBetween(since, now) > kStallSeconds) {
        kLog.info("the insurance microphone stalled; restarting it");
        restart();
    }
}

void InsuranceRecorder::devicesChanged() {
    if (!isEnabled.get() || !isListening.get() || !parts_.resolveDevice) return;
    if (parts_.resolveDevice().uid != listeningDeviceUID_) restart();
}

InsuranceRecorderParts InsuranceRecorder::defaultParts() {
    InsuranceRecorderParts parts;
    parts.microphone = audio::MicCapture::makeForListening();
    parts.resolveDevice = [] {
        auto& settings = audio::MicrophoneSettings::shared();
        const auto resolution = settings.insuranceResolution();
        InsuranceDevice device;
        device.target = settings.target(resolution);
        device.uid = resolution.deviceUID;
        if (resolution.device) device.name = resolution.device->name;
        return device;
    };
    parts.defaultInputName = []() -> std::optional<std::string> {
        auto& settings = audio::MicrophoneSettings::shared();
        const auto uid = settings.systemDefaultUID.get();
        if (!uid) return std::nullopt;
        return audio::deviceName(*uid, settings.devices.get(), interfaceLanguage());
    };
    parts.watchDevices = [](std::function<void()> changed) {
        auto& settings = audio::MicrophoneSettings::shared();
        auto a = std::make_shared<Subscription>(settings.devices.subscribe([changed](const auto&) { changed(); }));
        auto b = std::make_shared<Subscription>(settings.systemDefaultUID.subscribe([changed](const auto&) { changed(); }));
        auto c = std::make_shared<Subscription>(settings.insuranceSelection.subscribe([changed](const auto&) { changed(); }));
        return Subscription([a, b, c] {
            a->reset();
            b->reset();
            c->reset();
        });
    };
    return parts;
}

InsuranceRecorder& InsuranceRecorder::shared() {
    // Never destroyed: the microphone queue may still be closing the capture at exit.
    static InsuranceRecorder* made = new InsuranceRecorder(defaultParts(), UserDefaults::standard());
    return *made;
}

}  // namespace vell::insurance
