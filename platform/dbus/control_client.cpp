#include "platform/dbus/control_client.h"

#include <chrono>
#include <sdbus-c++/sdbus-c++.h>

#include "platform/dbus/control_protocol.h"

namespace vell::dbus {

namespace {

using namespace std::chrono_literals;

ControlError toError(const sdbus::Error& e) { return {e.getName(), e.getMessage()}; }

template <class F>
auto guarded(F call) -> Expected<decltype(call()), ControlError> {
    try {
        return call();
    } catch (const sdbus::Error& e) {
        return unexpected(toError(e));
    }
}

}  // namespace

bool ControlError::signedOut() const { return name == errors::kSignedOut; }
bool ControlError::notRecording() const { return name == errors::kNotRecording; }

std::unique_ptr<ControlClient> ControlClient::connect() {
    std::unique_ptr<ControlClient> client(new ControlClient());
    try {
        client->connection_ = sdbus::createSessionBusConnection();
        auto bus = sdbus::createProxy(*client->connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus");
        bool owned = false;
        bus->callMethod("NameHasOwner").onInterface("org.freedesktop.DBus").withTimeout(2s).withArguments(
            std::string(kControlName)).storeResultsTo(owned);
        if (!owned) return nullptr;
        client->proxy_ = sdbus::createProxy(*client->connection_, kControlName, kControlPath);
    } catch (const sdbus::Error&) {
        return nullptr;  // no session bus: no host either
    }
    return client;
}

ControlClient::~ControlClient() { proxy_.reset(); }

ControlClient::Result<HostStatus> ControlClient::status() const {
    return guarded([this] {
        HostStatus s;
        auto get = [this](const char* name) { return proxy_->getProperty(name).onInterface(kControlInterface); };
        s.phase = get("Phase").get<std::string>();
        s.userEmail = get("UserEmail").get<std::string>();
        s.userID = get("UserID").get<std::string>();
        s.recording = get("Recording").get<bool>();
        s.recordingID = get("RecordingID").get<std::string>();
        s.elapsed = get("Elapsed").get<double>();
        s.microphoneLevel = get("MicrophoneLevel").get<double>();
        s.systemLevel = get("SystemLevel").get<double>();
        s.microphoneDropped = get("MicrophoneDropped").get<double>();
        s.systemDropped = get("SystemDropped").get<double>();
        s.lastError = get("LastError").get<std::string>();
        s.meetingTitle = get("MeetingTitle").get<std::string>();
        return s;
    });
}

ControlClient::Result<std::string> ControlClient::pending() const {
    return guarded([this] {
        std::string json;
        proxy_->callMethod("Pending").onInterface(kControlInterface).withTimeout(30s).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::string> ControlClient::upload() const {
    return guarded([this] {
        std::string json;
        // A pass over large recordings on a slow link takes long; the host has its own limits.
        proxy_->callMethod("Upload").onInterface(kControlInterface).withTimeout(24h).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::pair<std::string, std::string>> ControlClient::startRecording() const {
    return guarded([this] {
        std::string id, file;
        proxy_->callMethod("StartRecording").onInterface(kControlInterface).withTimeout(60s).storeResultsTo(id, file);
        return std::pair{id, file};
    });
}

ControlClient::Result<std::string> ControlClient::stopRecording(bool discard) const {
    return guarded([this, discard] {
        std::string json;
        proxy_->callMethod("StopRecording").onInterface(kControlInterface).withTimeout(60s).withArguments(discard).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::string> ControlClient::signIn(const std::string& email, const std::string& password) const {
    return guarded([&] {
        std::string step;
        proxy_->callMethod("SignIn").onInterface(kControlInterface).withTimeout(180s).withArguments(email, password).storeResultsTo(step);
        return step;
    });
}

ControlClient::Result<Unit> ControlClient::verifyCode(const std::string& code) const {
    return guarded([&] {
        proxy_->callMethod("VerifyCode").onInterface(kControlInterface).withTimeout(180s).withArguments(code);
        return Unit{};
    });
}

ControlClient::Result<Unit> ControlClient::signOut() const {
    return guarded([this] {
        proxy_->callMethod("SignOut").onInterface(kControlInterface).withTimeout(180s);
        return Unit{};
    });
}

ControlClient::Result<std::string> ControlClient::whoAmI() const {
    return guarded([this] {
        std::string json;
        proxy_->callMethod("WhoAmI").onInterface(kControlInterface).withTimeout(180s).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<Unit> ControlClient::quit() const {
    return guarded([this] {
        proxy_->callMethod("Quit").onInterface(kControlInterface).withTimeout(30s);
        return Unit{};
    });
}

ControlClient::Result<std::string> ControlClient::insuranceStatus() const {
    return guarded([this] {
        std::string json;
        proxy_->callMethod("InsuranceStatus").onInterface(kControlInterface).withTimeout(30s).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::string> ControlClient::insuranceEnable() const {
    return guarded([this] {
        std::string json;
        proxy_->callMethod("InsuranceEnable").onInterface(kControlInterface).withTimeout(30s).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::string> ControlClient::insuranceDisable() const {
    return guarded([this] {
        std::string json;
        proxy_->callMethod("InsuranceDisable").onInterface(kControlInterface).withTimeout(30s).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<int> ControlClient::insuranceSetWindow(int minutes) const {
    return guarded([this, minutes] {
        int32_t kept = 0;
        proxy_->callMethod("InsuranceSetWindow").onInterface(kControlInterface).withTimeout(30s)
            .withArguments(int32_t(minutes)).storeResultsTo(kept);
        return int(kept);
    });
}

ControlClient::Result<std::string> ControlClient::insuranceChunks() const {
    return guarded([this] {
        std::string json;
        proxy_->callMethod("InsuranceChunks").onInterface(kControlInterface).withTimeout(30s).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<int> ControlClient::insuranceExport(int minutes, const std::string& path) const {
    return guarded([this, minutes, &path] {
        int32_t joined = 0;
        proxy_->callMethod("InsuranceExport").onInterface(kControlInterface).withTimeout(120s)
            .withArguments(int32_t(minutes), path).storeResultsTo(joined);
        return int(joined);
    });
}

ControlClient::Result<std::string> ControlClient::callsStatus() const {
    return guarded([this] {
        std::string json;
        proxy_->callMethod("CallsStatus").onInterface(kControlInterface).withTimeout(30s).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::string> ControlClient::setCallsEnabled(bool enabled) const {
    return guarded([this, enabled] {
        std::string json;
        proxy_->callMethod("SetCallsEnabled").onInterface(kControlInterface).withTimeout(30s).withArguments(enabled)
            .storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::string> ControlClient::calendarAdd(const std::string& source) const {
    return guarded([this, &source] {
        std::string stored;
        proxy_->callMethod("CalendarAdd").onInterface(kControlInterface).withTimeout(30s).withArguments(source).storeResultsTo(stored);
        return stored;
    });
}

ControlClient::Result<std::string> ControlClient::calendarRemove(const std::string& source) const {
    return guarded([this, &source] {
        std::string removed;
        proxy_->callMethod("CalendarRemove").onInterface(kControlInterface).withTimeout(30s).withArguments(source).storeResultsTo(removed);
        return removed;
    });
}

ControlClient::Result<Unit> ControlClient::calendarSetEnabled(bool enabled) const {
    return guarded([this, enabled] {
        proxy_->callMethod("CalendarSetEnabled").onInterface(kControlInterface).withTimeout(30s).withArguments(enabled);
        return Unit{};
    });
}

ControlClient::Result<std::string> ControlClient::calendarReport(bool upcoming) const {
    return guarded([this, upcoming] {
        std::string json;
        proxy_->callMethod("CalendarReport").onInterface(kControlInterface).withTimeout(30s).withArguments(upcoming).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::string> ControlClient::undo() const {
    return guarded([this] {
        std::string json;
        proxy_->callMethod("Undo").onInterface(kControlInterface).withTimeout(30s).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<int> ControlClient::recoverStart(const std::string& range, int minutes) const {
    return guarded([this, &range, minutes] {
        int32_t run = 0;
        proxy_->callMethod("RecoverStart").onInterface(kControlInterface).withTimeout(30s)
            .withArguments(range, int32_t(minutes)).storeResultsTo(run);
        return int(run);
    });
}

ControlClient::Result<std::string> ControlClient::recoverProgress(int run) const {
    return guarded([this, run] {
        std::string json;
        proxy_->callMethod("RecoverProgress").onInterface(kControlInterface).withTimeout(30s)
            .withArguments(int32_t(run)).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::pair<std::string, std::string>> ControlClient::startRecordingOn(const std::string& microphone) const {
    return guarded([this, &microphone] {
        std::string id, file;
        proxy_->callMethod("StartRecordingOn").onInterface(kControlInterface).withTimeout(60s).withArguments(microphone)
            .storeResultsTo(id, file);
        return std::pair{id, file};
    });
}

ControlClient::Result<bool> ControlClient::microphoneFellBack() const {
    return guarded([this] {
        return proxy_->getProperty("MicrophoneFellBack").onInterface(kControlInterface).get<bool>();
    });
}

ControlClient::Result<std::string> ControlClient::echoCancelStatus() const {
    return guarded([this] {
        std::string json;
        proxy_->callMethod("EchoCancelStatus").onInterface(kControlInterface).withTimeout(30s).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::string> ControlClient::liveAdvice() const {
    return guarded([this] {
        std::string json;
        proxy_->callMethod("LiveAdvice").onInterface(kControlInterface).withTimeout(10s).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::string> ControlClient::insuranceRequests() const {
    return guarded([this] {
        std::string json;
        proxy_->callMethod("InsuranceRequests").onInterface(kControlInterface).withTimeout(30s).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::string> ControlClient::recordings() const {
    return guarded([this] {
        std::string json;
        proxy_->callMethod("Recordings").onInterface(kControlInterface).withTimeout(90s).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::string> ControlClient::setEchoCancelEnabled(bool enabled) const {
    return guarded([this, enabled] {
        std::string json;
        proxy_->callMethod("SetEchoCancelEnabled").onInterface(kControlInterface).withTimeout(30s)
            .withArguments(enabled).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::string> ControlClient::recordingDetail(const std::string& id) const {
    return guarded([this, &id] {
        std::string json;
        proxy_->callMethod("RecordingDetail").onInterface(kControlInterface).withTimeout(90s).withArguments(id).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::string> ControlClient::recoverPlay() const {
    return guarded([this] {
        std::string json;
        proxy_->callMethod("RecoverPlay").onInterface(kControlInterface).withTimeout(30s).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::string> ControlClient::renameSpeakers(const std::string& id, const std::string& namesJson) const {
    return guarded([this, &id, &namesJson] {
        std::string json;
        proxy_->callMethod("RenameSpeakers").onInterface(kControlInterface).withTimeout(90s)
            .withArguments(id, namesJson).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<Unit> ControlClient::recoverStopPlaying() const {
    return guarded([this] {
        proxy_->callMethod("RecoverStopPlaying").onInterface(kControlInterface).withTimeout(30s);
        return Unit{};
    });
}

ControlClient::Result<std::string> ControlClient::recoverCopy() const {
    return guarded([this] {
        std::string json;
        proxy_->callMethod("RecoverCopy").onInterface(kControlInterface).withTimeout(30s).storeResultsTo(json);
        return json;
    });
}

ControlClient::Result<std::string> ControlClient::shareRecording(const std::string& id) const {
    return guarded([this, &id] {
        std::string url;
        proxy_->callMethod("ShareRecording").onInterface(kControlInterface).withTimeout(90s).withArguments(id).storeResultsTo(url);
        return url;
    });
}

ControlClient::Result<bool> ControlClient::reopen(const std::string& window) const {
    return guarded([this, &window] {
        bool shown = false;
        proxy_->callMethod("Reopen").onInterface(kControlInterface).withTimeout(10s).withArguments(window).storeResultsTo(shown);
        return shown;
    });
}

}  // namespace vell::dbus
