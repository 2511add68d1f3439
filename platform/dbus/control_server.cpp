#include "platform/dbus/control_server.h"

#include <mutex>
#include <nlohmann/json.hpp>
#include <sdbus-c++/sdbus-c++.h>

#include "platform/dbus/bus_loop.h"

#include "app/app_messages.h"
#include "app/input_levels.h"
#include "audio/capture_messages.h"
#include "audio/dropped_audio.h"
#include "audio/microphone_settings.h"
#include "base/log.h"
#include "base/runtime.h"
#include "platform/dbus/control_calls.h"
#include "platform/dbus/control_echo.h"
#include "platform/dbus/control_calendar.h"
#include "platform/dbus/control_microphone.h"
#include "platform/dbus/control_recovery.h"
#include "platform/dbus/control_agent_requests.h"
#include "platform/dbus/control_results.h"
#include "platform/dbus/control_reopen.h"
#include "platform/dbus/control_context.h"
#include "platform/dbus/control_insurance.h"
#include "platform/dbus/control_protocol.h"
#include "recording/pending_recording_coding.h"
#include "recording/recorder_service.h"

namespace vell::dbus {

namespace {

const log::Logger kLog("Control");
using Json = nlohmann::ordered_json;
using Phase = app::AppState::Phase;

const char* phaseName(Phase phase) {
    switch (phase) {
        case Phase::launching: return "launching";
        case Phase::signedOut: return "signedOut";
        case Phase::mfaRequired: return "mfaRequired";
        case Phase::signedIn: return "signedIn";
    }
    return "launching";
}

// What the properties read: written on the main executor, read on the bus thread.
struct Snapshot {
    std::string phase = "launching", userEmail, userID, recordingID, lastError, meetingTitle;
    bool recording = false;
    double elapsed = 0, microphoneLevel = 0, systemLevel = 0;
};


}  // namespace

void ControlContext::announce(const std::vector<std::string>& names) {
    try {
        object.emitPropertiesChangedSignal(kControlInterface, names);
    } catch (const sdbus::Error& e) {
        kLog.error(std::string("could not announce a change: ") + e.what());
    }
}

namespace {
// The features' parts of the interface, each in its own file.
const ControlExtension kExtensions[] = {
    &registerInsuranceControl,
    &registerCallsControl,
    &registerCalendarControl,
    &registerRecoveryControl,
    &registerMicrophoneControl,
    &registerEchoControl,
    &registerAgentRequestsControl,
    &registerResultsControl,
    &registerReopenControl,
};
}  // namespace

struct ControlServer::Impl {
    app::Host& host;
    std::unique_ptr<sdbus::IConnection> connection;
    std::unique_ptr<sdbus::IObject> object;
    std::unique_ptr<ControlContext> context;
    std::unique_ptr<BusLoop> loop;
    mutable std::mutex lock;
    Snapshot snapshot;
    std::vector<Subscription> watches;
    // Upload calls under way, told of each attempt of the pass they wait for.
    std::vector<std::shared_ptr<Json>> uploadCollectors;

    explicit Impl(app::Host& h) : host(h) {}

    template <class Read>
    auto read(Read r) const {
        std::lock_guard guard(lock);
        return r(snapshot);
    }
    // Changes the snapshot on the main executor and announces the changed names.
    void update(const std::function<void(Snapshot&)>& change, std::vector<std::string> names) {
        {
            std::lock_guard guard(lock);
            change(snapshot);
        }
        context->announce(names);
    }
    template <class... Results, class Work>
    void onMain(sdbus::Result<Results...>&& result, Work work) {
        context->onMain(std::move(result), std::move(work));
    }

    void registerInterface();
    void watchHost();
};

void ControlServer::Impl::watchHost() {
    auto& core = host.core();
    auto& state = core.appState();
    auto& recorder = core.recorder();
    auto user = [this, &state] {
        update([&](Snapshot& s) {
            auto me = state.me.get();
            s.phase = phaseName(state.phase.get());
            s.userEmail = me ? me->email : "";
            s.userID = me ? me->id : "";
        }, {"Phase", "UserEmail", "UserID"});
    };
    watches.push_back(state.phase.subscribe([user](Phase) { user(); }));
    watches.push_back(state.me.subscribe([user](const std::optional<service::Me>&) { user(); }));
    watches.push_back(recorder.state.isRecording.subscribe([this, &recorder](bool recording) {
        update([&](Snapshot& s) {
            s.recording = recording;
            s.recordingID = recorder.currentID().value_or("");
        }, {"Recording", "RecordingID"});
    }));
    watches.push_back(recorder.state.elapsed.subscribe([this](double elapsed) {
        auto& levels = app::inputLevels();
        update([&](Snapshot& s) {
            s.elapsed = elapsed;
            s.microphoneLevel = levels.microphone.exchange(0);
            s.systemLevel = levels.system.exchange(0);
        }, {"Elapsed", "MicrophoneLevel", "SystemLevel", "MicrophoneDropped", "SystemDropped"});
    }));
    watches.push_back(recorder.state.calendarMeetingTitle.subscribe([this](const std::optional<std::string>& title) {
        update([&](Snapshot& s) { s.meetingTitle = title.value_or(""); }, {"MeetingTitle"});
    }));
    watches.push_back(recorder.state.lastError.subscribe([this](const std::optional<std::string>& error) {
        update([&](Snapshot& s) { s.lastError = error.value_or(""); }, {"LastError"});
    }));
    watches.push_back(recorder.state.pending.subscribe([this](const std::vector<recording::PendingRecording>&) {
        try {
            object->emitSignal("PendingChanged").onInterface(kControlInterface);
        } catch (const sdbus::Error& e) {
            kLog.error(std::string("could not announce the pending list: ") + e.what());
        }
    }));
    // The starting values.
    user();
    update([&](Snapshot& s) {
        s.recording = recorder.state.isRecording.get();
        s.recordingID = recorder.currentID().value_or("");
        s.lastError = recorder.state.lastError.get().value_or("");
        s.meetingTitle = recorder.state.calendarMeetingTitle.get().value_or("");
    }, {"Recording", "RecordingID", "LastError", "MeetingTitle"});

    auto& uploads = core.uploads();
    uploads.onAttempt = [this](const recording::PendingRecording& r,
                               const Expected<std::string, service::UploadError>& result) {
        Json attempt{{"file", r.fileURL.filename().string()}};
        if (result) attempt["recordingId"] = *result;
        else attempt["error"] = result.error().descriptionWithCause();
        for (auto& collector : uploadCollectors) (*collector)["attempts"].push_back(attempt);
    };
}

void ControlServer::Impl::registerInterface() {
    const char* I = kControlInterface;
    object->registerProperty("Phase").onInterface(I).withGetter([this] { return read([](auto& s) { return s.phase; }); });
    object->registerProperty("UserEmail").onInterface(I).withGetter([this] { return read([](auto& s) { return s.userEmail; }); });
    object->registerProperty("UserID").onInterface(I).withGetter([this] { return read([](auto& s) { return s.userID; }); });
    object->registerProperty("Recording").onInterface(I).withGetter([this] { return read([](auto& s) { return s.recording; }); });
    object->registerProperty("RecordingID").onInterface(I).withGetter([this] { return read([](auto& s) { return s.recordingID; }); });
    object->registerProperty("Elapsed").onInterface(I).withGetter([this] { return read([](auto& s) { return s.elapsed; }); });
    object->registerProperty("MicrophoneLevel").onInterface(I).withGetter([this] {
        return read([](auto& s) { return s.microphoneLevel; });
    });
    object->registerProperty("SystemLevel").onInterface(I).withGetter([this] { return read([](auto& s) { return s.systemLevel; }); });
    // Read as they are: the mixer's last drops come when the recording ends, after the last tick.
    object->registerProperty("MicrophoneDropped").onInterface(I).withGetter([] {
        return audio::DroppedAudio::shared().microphoneSeconds.load();
    });
    object->registerProperty("SystemDropped").onInterface(I).withGetter([] {
        return audio::DroppedAudio::shared().systemSeconds.load();
    });
    object->registerProperty("LastError").onInterface(I).withGetter([this] { return read([](auto& s) { return s.lastError; }); });
    object->registerProperty("MeetingTitle").onInterface(I).withGetter([this] {
        return read([](auto& s) { return s.meetingTitle; });
    });
    object->registerSignal("PendingChanged").onInterface(I);

    object->registerMethod("Pending").onInterface(I).implementedAs([this](sdbus::Result<std::string>&& result) {
        onMain(std::move(result), [this](auto& r) {
            r->returnResults(recording::coding::encodeList(host.core().recorder().pending()));
        });
    });

    object->registerMethod("Upload").onInterface(I).implementedAs([this](sdbus::Result<std::string>&& result) {
        onMain(std::move(result), [this](auto& r) {
            auto& core = host.core();
            if (core.appState().phase.get() != Phase::signedIn) {
                return r->returnError(sdbus::Error(errors::kSignedOut, app::messages::kNotSignedIn.str()));
            }
            auto collector = std::make_shared<Json>(Json{{"attempts", Json::array()}});
            uploadCollectors.push_back(collector);
            core.uploads().runOnce([this, r, collector](service::PassSummary summary) {
                std::erase(uploadCollectors, collector);
                (*collector)["uploaded"] = summary.uploaded;
                (*collector)["failed"] = summary.failed;
                (*collector)["unauthenticated"] = summary.unauthenticated;
                if (summary.storageFailure) (*collector)["storageFailure"] = *summary.storageFailure;
                r->returnResults(collector->dump());
            });
        });
    });

    // Starts a recording on the main executor; `microphone` (a stored-choice form such as
    // "uid:NAME") is this recording's own microphone, empty for the chosen one.
    auto startRecording = [this](auto& r, const std::string& microphone) {
        auto& recorder = host.core().recorder();
        if (recorder.state.isRecording.get() || recorder.isStarting()) {
            return r->returnError(sdbus::Error(errors::kFailed, app::messages::kAlreadyRecording.str()));
        }
        recording::RecordingStartOptions options;
        if (auto selection = audio::MicrophoneSelection::parse(microphone)) {
            options.microphone = audio::MicrophoneSettings::shared().target(*selection);
        }
        recorder.start(std::move(options), [&recorder, r](bool started) {
            if (!started) {
                return r->returnError(sdbus::Error(errors::kFailed, recorder.state.lastError.get().value_or("")));
            }
            const auto id = recorder.currentID().value_or("");
            std::string file;
            for (const auto& e : recorder.pending())
                if (e.id == id) file = e.fileURL.string();
            r->returnResults(id, file);
        });
    };
    object->registerMethod("StartRecording").onInterface(I).implementedAs(
        [this, startRecording](sdbus::Result<std::string, std::string>&& result) {
            onMain(std::move(result), [startRecording](auto& r) { startRecording(r, ""); });
        });
    object->registerMethod("StartRecordingOn").onInterface(I).implementedAs(
        [this, startRecording](sdbus::Result<std::string, std::string>&& result, std::string microphone) {
            if (refused(result, arguments::microphone(microphone))) return;
            onMain(std::move(result), [startRecording, microphone](auto& r) { startRecording(r, microphone); });
        });

    object->registerMethod("StopRecording").onInterface(I).implementedAs([this](sdbus::Result<std::string>&& result, bool discard) {
        onMain(std::move(result), [this, discard](auto& r) {
            auto& recorder = host.core().recorder();
            auto id = recorder.currentID();
            if (!recorder.state.isRecording.get() || !id) {
                return r->returnError(sdbus::Error(errors::kNotRecording, app::messages::kNothingRecording.str()));
            }
            recorder.stop(true, discard);
            // The length the file really holds (a frozen sound server gives less audio than
            // the wall time between start and stop).
            const auto& outcome = recorder.lastStop();
            for (const auto& e : recorder.pending()) {
                if (e.id != *id) continue;
                auto j = recording::coding::encode(e);
                if (outcome && outcome->id == *id) j["savedSeconds"] = outcome->savedSeconds;
                return r->returnResults(j.dump());
            }
            r->returnResults(std::string("{}"));
        });
    });

    object->registerMethod("SignIn").onInterface(I).implementedAs(
        [this](sdbus::Result<std::string>&& result, std::string email, std::string password) {
            if (refused(result, arguments::email(email)) || refused(result, arguments::password(password))) return;
            onMain(std::move(result), [this, email, password](auto& r) {
                auto& state = host.core().appState();
                if (auto me = state.me.get()) {
                    return r->returnError(sdbus::Error(errors::kFailed, app::messages::kAlreadySignedIn.str() + me->email + "."));
                }
                state.signIn(email, password, [r](Expected<service::SignInStep, service::APIError> step) {
                    if (!step) return r->returnError(sdbus::Error(errors::kFailed, step.error().descriptionWithCause()));
                    r->returnResults(std::string(*step == service::SignInStep::mfaRequired ? "mfaRequired" : "signedIn"));
                });
            });
        });

    object->registerMethod("VerifyCode").onInterface(I).implementedAs([this](sdbus::Result<>&& result, std::string code) {
        auto answer = arguments::verifyCode(code);
        if (refused(result, answer)) return;
        onMain(std::move(result), [this, answer = *answer](auto& r) {
            auto& state = host.core().appState();
            if (state.phase.get() != Phase::mfaRequired) {
                return r->returnError(sdbus::Error(errors::kFailed, app::messages::kNoCodeAsked.str()));
            }
            state.verifyMfa(answer, [r](Expected<Unit, service::APIError> done) {
                if (!done) return r->returnError(sdbus::Error(errors::kFailed, done.error().descriptionWithCause()));
                r->returnResults();
            });
        });
    });

    object->registerMethod("SignOut").onInterface(I).implementedAs([this](sdbus::Result<>&& result) {
        onMain(std::move(result), [this](auto& r) {
            host.core().appState().signOut([r] { r->returnResults(); });
        });
    });

    object->registerMethod("WhoAmI").onInterface(I).implementedAs([this](sdbus::Result<std::string>&& result) {
        onMain(std::move(result), [this](auto& r) {
            auto& core = host.core();
            if (!core.account().hasSession()) {
                return r->returnError(sdbus::Error(errors::kSignedOut, app::messages::kNotSignedIn.str()));
            }
            core.account().fetchMe([&core, r](Expected<service::Me, service::APIError> me) {
                if (!me) {
                    if (me.error().isSessionRejection()) {
                        core.appState().handleUnauthenticated();
                        return r->returnError(sdbus::Error(errors::kSignedOut, me.error().description()));
                    }
                    return r->returnError(sdbus::Error(errors::kFailed, me.error().descriptionWithCause()));
                }
                r->returnResults(Json{{"id", me->id}, {"email", me->email}, {"role", me->role}, {"isAdmin", me->isAdmin}}.dump());
            });
        });
    });

    object->registerMethod("Quit").onInterface(I).implementedAs([this](sdbus::Result<>&& result) {
        onMain(std::move(result), [this](auto& r) {
            r->returnResults();
            host.quit({});
        });
    });
    for (auto extension : kExtensions) {
        if (extension) extension(*context);
    }
    object->finishRegistration();
}

Expected<std::unique_ptr<ControlServer>, std::string> ControlServer::start(app::Host& host) {
    auto impl = std::make_unique<Impl>(host);
    try {
        impl->connection = sdbus::createSessionBusConnection();
        impl->connection->requestName(kControlName);
        impl->object = sdbus::createObject(*impl->connection, kControlPath);
        impl->context = std::make_unique<ControlContext>(*impl->object, host);
        impl->registerInterface();
        impl->watchHost();
        impl->loop = std::make_unique<BusLoop>(*impl->connection, "the control interface");
    } catch (const sdbus::Error& e) {
        return unexpected(std::string("the control interface could not be offered on the session bus: ") + e.getMessage());
    }
    kLog.info(std::string("serving ") + kControlName + " on the session bus");
    return std::unique_ptr<ControlServer>(new ControlServer(std::move(impl)));
}

ControlServer::ControlServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

ControlServer::~ControlServer() {
    impl_->watches.clear();
    if (impl_->context) {
        impl_->context->watches.clear();
        impl_->context->close();
    }
    impl_->loop.reset();
    if (impl_->connection) {
        try {
            impl_->connection->releaseName(kControlName);
        } catch (const sdbus::Error&) {
        }
    }
    auto& uploads = impl_->host.core().uploads();
    uploads.onAttempt = nullptr;
}

}  // namespace vell::dbus
