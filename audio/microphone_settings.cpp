#include "audio/microphone_settings.h"

#include <mutex>
#include <stdexcept>

#include "audio/capture_messages.h"
#include "audio/error_sentence.h"
#include "base/log.h"
#include "base/preference_keys.h"
#include "base/runtime.h"
#include "base/user_defaults.h"

namespace vell::audio {

namespace {
constexpr std::string_view kUIDPrefix = "uid:";

const log::Logger& logger() {
    static const log::Logger instance("MicrophoneSettings");
    return instance;
}

std::optional<AudioInputDevice> findByUID(const std::vector<AudioInputDevice>& devices, const std::string& uid) {
    for (const auto& d : devices) {
        if (d.uid == uid) return d;
    }
    return std::nullopt;
}

// Failures reported before the shared instance exists are kept here and handed over.
std::mutex gHealthMutex;
MicrophoneHealth gHealth;
MicrophoneSettings* gShared = nullptr;
}  // namespace

const char* transportName(AudioInputDevice::Transport transport) {
    switch (transport) {
        case AudioInputDevice::Transport::builtIn:
            return "builtIn";
        case AudioInputDevice::Transport::bluetooth:
            return "bluetooth";
        case AudioInputDevice::Transport::usb:
            return "usb";
        case AudioInputDevice::Transport::other:
            break;
    }
    return "other";
}

std::string MicrophoneSelection::encoded() const {
    switch (kind) {
        case Kind::systemDefault:
            return "default";
        case Kind::builtIn:
            return "builtin";
        case Kind::device:
            break;
    }
    return std::string(kUIDPrefix) + uid;
}

MicrophoneSelection MicrophoneSelection::decode(const std::optional<std::string>& text) {
    if (!text) return systemDefault();
    return parse(*text).value_or(systemDefault());
}

std::optional<MicrophoneSelection> MicrophoneSelection::parse(const std::string& text) {
    if (text == "default") return systemDefault();
    if (text == "builtin") return builtIn();
    if (text.rfind(kUIDPrefix, 0) == 0) return device(text.substr(kUIDPrefix.size()));
    return std::nullopt;
}

MicrophoneResolution resolve(const MicrophoneSelection& selection, const std::vector<AudioInputDevice>& devices,
                             const std::optional<std::string>& systemDefaultUID) {
    std::optional<AudioInputDevice> systemDevice = systemDefaultUID ? findByUID(devices, *systemDefaultUID) : std::nullopt;
    std::optional<AudioInputDevice> chosen;
    switch (selection.kind) {
        case MicrophoneSelection::Kind::systemDefault:
            return {std::nullopt, systemDevice, false};
        case MicrophoneSelection::Kind::builtIn:
            for (const auto& d : devices) {
                if (d.transport == AudioInputDevice::Transport::builtIn) {
                    chosen = d;
                    break;
                }
            }
            break;
        case MicrophoneSelection::Kind::device:
            chosen = findByUID(devices, selection.uid);
            break;
    }
    if (chosen) return {chosen->uid, chosen, false};
    return {std::nullopt, systemDevice, true};
}

std::string deviceName(const std::string& uid, const std::vector<AudioInputDevice>& devices, Language language) {
    if (auto d = findByUID(devices, uid); d && !d->name.empty()) return d->name;
    return messages::kSystemDefault.in(language);
}

std::string selectionLabel(const MicrophoneSelection& selection, const std::vector<AudioInputDevice>& devices,
                           const std::optional<std::string>& systemDefaultUID, Language language) {
    switch (selection.kind) {
        case MicrophoneSelection::Kind::systemDefault: {
            auto current = systemDefaultUID ? findByUID(devices, *systemDefaultUID) : std::nullopt;
            if (!current) return messages::kSystemDefault.in(language);
            return messages::kSystemDefaultWithName.in(language) + current->name + ")";
        }
        case MicrophoneSelection::Kind::builtIn:
            return messages::kBuiltInMicrophone.in(language);
        case MicrophoneSelection::Kind::device:
            break;
    }
    if (!findByUID(devices, selection.uid)) return messages::kDisconnectedMicrophone.in(language);
    return deviceName(selection.uid, devices, language);
}

MicrophoneSettings::MicrophoneSettings(std::unique_ptr<InputDeviceProvider> provider, UserDefaults& defaults, bool listen)
    : provider_(std::move(provider)), defaults_(defaults), alive_(std::make_shared<bool>(true)) {
    recordingSelection.set(MicrophoneSelection::decode(defaults_.stringValue(prefs::kMicrophoneRecording)));
    insuranceSelection.set(MicrophoneSelection::decode(defaults_.stringValue(prefs::kMicrophoneInsurance)));
    {
        std::lock_guard lock(gHealthMutex);
        health.set(gHealth);
    }
    listening_ = listen;
    refresh();
    if (listen) {
        std::weak_ptr<bool> alive = alive_;
        provider_->setChangeHandler([this, alive] {
            try {
                runtime::runOnMain([this, alive] {
                    if (alive.lock()) refresh();
                });
            } catch (const std::exception& e) {
                logger().error(std::string("device change not handled: ") + e.what());
            }
        });
    }
}

MicrophoneSettings::~MicrophoneSettings() {
    provider_->setChangeHandler(nullptr);
    alive_.reset();
    std::lock_guard lock(gHealthMutex);
    if (gShared == this) gShared = nullptr;
}

namespace {
std::mutex gProviderMutex;
InputDeviceProviderFactory gDefaultProvider;
}  // namespace

void MicrophoneSettings::setDefaultDeviceProvider(InputDeviceProviderFactory factory) {
    std::lock_guard lock(gProviderMutex);
    gDefaultProvider = std::move(factory);
}

MicrophoneSettings& MicrophoneSettings::shared() {
    static MicrophoneSettings* instance = [] {
        InputDeviceProviderFactory factory;
        {
            std::lock_guard lock(gProviderMutex);
            factory = gDefaultProvider;
        }
        if (!factory) throw std::logic_error("vell: no input device provider installed");
        auto* settings = new MicrophoneSettings(factory(), UserDefaults::standard(), true);
        std::lock_guard lock(gHealthMutex);
        gShared = settings;
        return settings;
    }();
    return *instance;
}

void MicrophoneSettings::reportDeviceHealth(const std::string& uid, bool failed) {
    MicrophoneHealth snapshot;
    {
        std::lock_guard lock(gHealthMutex);
        bool changed = failed ? gHealth.failedUIDs.insert(uid).second : gHealth.failedUIDs.erase(uid) > 0;
        if (!changed || !gShared) return;
        snapshot = gHealth;
    }
    if (failed) logger().info("microphone " + uid + " failed to open");
    try {
        runtime::runOnMain([snapshot] {
            std::lock_guard lock(gHealthMutex);
            if (gShared) gShared->health.set(snapshot);
        });
    } catch (const std::exception&) {
        // No main executor (a one-shot command): the health is only kept for this run.
    }
}

void MicrophoneSettings::refresh() {
    try {
        auto list = provider_->devices();
        auto defaultUID = provider_->systemDefaultUID();
        if (list != devices.get()) devices.set(std::move(list));
        if (defaultUID != systemDefaultUID.get()) systemDefaultUID.set(defaultUID);
        if (!lastError.get().empty()) lastError.set("");
    } catch (const std::exception& e) {
        // The server went away: nothing can be opened by name until it is back.
        logger().error(std::string("cannot list microphones: ") + e.what());
        devices.set({});
        systemDefaultUID.set(std::nullopt);
        lastError.set(failureSentence(e));
        retryLater();
    }
}

void MicrophoneSettings::retryLater() {
    // A lost server sends no more events: ask again every few seconds until it is back.
    if (!listening_ || retryScheduled_) return;
    retryScheduled_ = true;
    std::weak_ptr<bool> alive = alive_;
    try {
        runtime::main().postAfter(3.0, [this, alive] {
            if (!alive.lock()) return;
            retryScheduled_ = false;
            refresh();
        });
    } catch (const std::exception&) {
        retryScheduled_ = false;  // no main executor: nothing to retry on
    }
}

void MicrophoneSettings::setRecordingSelection(const MicrophoneSelection& selection) {
    defaults_.set(prefs::kMicrophoneRecording, selection.encoded());
    recordingSelection.set(selection);
}

void MicrophoneSettings::setInsuranceSelection(const MicrophoneSelection& selection) {
    defaults_.set(prefs::kMicrophoneInsurance, selection.encoded());
    insuranceSelection.set(selection);
}

MicrophoneResolution MicrophoneSettings::recordingResolution() const {
    return resolve(recordingSelection.get(), devices.get(), systemDefaultUID.get());
}

MicrophoneResolution MicrophoneSettings::insuranceResolution() const {
    return resolve(insuranceSelection.get(), devices.get(), systemDefaultUID.get());
}

MicrophoneTarget MicrophoneSettings::target(const MicrophoneResolution& resolution) const {
    MicrophoneTarget t;
    if (resolution.deviceUID) {
        t.uid = resolution.deviceUID;
        if (resolution.device) t.deviceID = resolution.device->deviceID;
    }
    return t;
}

MicrophoneTarget MicrophoneSettings::recordingTarget() { return target(recordingResolution()); }
MicrophoneTarget MicrophoneSettings::target(const MicrophoneSelection& selection) const {
    return target(resolve(selection, devices.get(), systemDefaultUID.get()));
}
MicrophoneTarget MicrophoneSettings::insuranceTarget() { return target(insuranceResolution()); }

}  // namespace vell::audio
