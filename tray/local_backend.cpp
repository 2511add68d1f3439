#include "tray/local_backend.h"

#include <algorithm>

#include <QClipboard>
#include <QGuiApplication>
#include <filesystem>
#include <regex>

#include "app/agent_requests.h"
#include "app/composition.h"
#include "app/core_services.h"
#include "app/host.h"
#include "app/input_levels.h"
#include "app/xdg_autostart_login_item.h"
#include "audio/microphone_settings.h"
#include "automation/automatic_call_recorder.h"
#include "automation/calendar_auto_recorder.h"
#include "automation/discarded_recordings.h"
#include "automation/running_automations.h"
#include "base/paths.h"
#include "base/preference_keys.h"
#include "base/runtime.h"
#include "base/user_defaults.h"
#include "insurance/insurance_agent_requests.h"
#include "insurance/insurance_messages.h"
#include "insurance/insurance_recorder.h"
#include "insurance/insurance_recovery_controller.h"
#include "live/live_advisor.h"
#include "platform/calendar/ics_calendar_source.h"
#include "recording/recorder_service.h"
#include "results/recording_results.h"
#include "results/running_results.h"
#include "tray/language_choice.h"
#include "tray/tray_messages.h"

namespace vell::tray {

namespace {

// How often the levels, the undo countdown and the buffered span are looked at; when none
// of them moves (and the launch is over), ten times less often: every service's own changes
// arrive through its subscription anyway, and an idle tray should not wake five times a second.
constexpr int kTickMilliseconds = 200;
constexpr int kIdleTickMilliseconds = 2000;
constexpr int kLaunchMilliseconds = 5000;
constexpr int kLoginCheckMilliseconds = 2000;

SignInPhase phaseOf(app::AppState::Phase phase) {
    switch (phase) {
        case app::AppState::Phase::launching: return SignInPhase::launching;
        case app::AppState::Phase::signedOut: return SignInPhase::signedOut;
        case app::AppState::Phase::mfaRequired: return SignInPhase::mfaRequired;
        case app::AppState::Phase::signedIn: return SignInPhase::signedIn;
    }
    return SignInPhase::launching;
}

insurance::Range rangeOf(RecoveryRange range) {
    switch (range) {
        case RecoveryRange::lastMinute: return insurance::Range::lastMinute;
        case RecoveryRange::lastFive: return insurance::Range::lastFive;
        case RecoveryRange::custom: return insurance::Range::custom;
        case RecoveryRange::all: return insurance::Range::all;
    }
    return insurance::Range::lastMinute;
}

// The program the autostart entry starts: this one.
std::string ownCommand() {
    std::error_code ec;
    auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::string("vell-tray") : self.string();
}

}  // namespace

std::shared_ptr<app::LoginItemService> desktopLoginItem() {
    return std::make_shared<app::XdgAutostartLoginItem>(paths::autostartEntry(), ownCommand());
}

LocalParts processParts() {
    LocalParts parts;
    parts.host = &app::host();
    parts.defaults = &UserDefaults::standard();
    parts.loginItem = desktopLoginItem();
    parts.insurance = [] { return &insurance::InsuranceRecorder::shared(); };
    parts.agentRequests = [] { return &app::agentRequests(app::core()); };
    parts.microphones = [] { return &audio::MicrophoneSettings::shared(); };
    parts.calls = [] { return automation::AutomaticCallRecorder::shared(); };
    parts.advisor = [] { return results::runningResults().advisor; };
    parts.results = [] { return results::runningResults().results; };
    parts.copy = [](const std::string& text) {
        if (text.empty()) return false;
        auto* clipboard = QGuiApplication::clipboard();
        if (!clipboard) return false;
        clipboard->clear();
        clipboard->setText(QString::fromStdString(text));
        return true;
    };
    return parts;
}

LocalBackend::LocalBackend(LocalParts parts) : parts_(std::move(parts)) {
    if (parts_.loginItem && parts_.defaults) {
        preferences_ = std::make_unique<app::AppPreferences>(*parts_.defaults, *parts_.loginItem);
        refreshLoginItem();
    }
    // The services are looked at once the event loop runs, so the icon shows first.
    QTimer::singleShot(0, this, [this] {
        watch();
        rebuild();
    });
    tick_.setInterval(kTickMilliseconds);
    connect(&tick_, &QTimer::timeout, this, [this] {
        watchLate();
        // The desktop's start-up entry can change behind our back (its settings, a removal).
        sinceLaunch_ += tick_.interval();
        sinceLoginCheck_ += tick_.interval();
        if (preferences_ && sinceLoginCheck_ >= kLoginCheckMilliseconds) {
            sinceLoginCheck_ = 0;
            refreshLoginItem();
        }
        rebuild();
    });
    // Labels made here (the microphones) follow the interface language.
    connect(&languageSignal(), &LanguageSignal::changed, this, &LocalBackend::rebuild);
    tick_.start();
}

LocalBackend::~LocalBackend() {
    recoveryWatches_.clear();
    lateWatches_.clear();
    watches_.clear();
}

void LocalBackend::watch() {
    auto& core = parts_.host->core();
    auto& state = core.appState();
    auto& recorder = core.recorder();
    auto again = [this](const auto&) { scheduleRebuild(); };
    watches_.push_back(state.phase.subscribe(again));
    watches_.push_back(state.me.subscribe(again));
    watches_.push_back(recorder.state.isRecording.subscribe(again));
    watches_.push_back(recorder.state.lastError.subscribe(again));
    watches_.push_back(recorder.state.pending.subscribe(again));
    watches_.push_back(recorder.state.calendarMeetingTitle.subscribe(again));
    watches_.push_back(core.uploads().activity().subscribe(again));
    if (preferences_) {
        watches_.push_back(preferences_->showsDockIcon.subscribe(again));
        watches_.push_back(preferences_->opensAtLogin.subscribe(again));
    }
    if (auto* mics = parts_.microphones ? parts_.microphones() : nullptr) {
        watches_.push_back(mics->devices.subscribe(again));
        watches_.push_back(mics->systemDefaultUID.subscribe(again));
        watches_.push_back(mics->recordingSelection.subscribe(again));
        watches_.push_back(mics->insuranceSelection.subscribe(again));
    }
    watchLate();
}

// The services the launch makes come after the tray: subscribe to each once it exists.
void LocalBackend::watchLate() {
    auto again = [this](const auto&) { scheduleRebuild(); };
    if (!insuranceWatched_) {
        if (auto* ins = parts_.insurance ? parts_.insurance() : nullptr) {
            insuranceWatched_ = true;
            lateWatches_.push_back(ins->isEnabled.subscribe(again));
            lateWatches_.push_back(ins->isListening.subscribe(again));
            lateWatches_.push_back(ins->lastError.subscribe(again));
            lateWatches_.push_back(ins->windowMinutes.subscribe(again));
            lateWatches_.push_back(ins->listeningDeviceName.subscribe(again));
        }
    }
    if (!agentWatched_) {
        if (auto* agent = parts_.agentRequests ? parts_.agentRequests() : nullptr) {
            agentWatched_ = true;
            lateWatches_.push_back(agent->answered.subscribe(again));
        }
    }
    if (!callsWatched_) {
        if (auto* calls = parts_.calls ? parts_.calls() : nullptr) {
            callsWatched_ = true;
            lateWatches_.push_back(calls->activeCallers.subscribe(again));
            lateWatches_.push_back(calls->isEnabled.subscribe(again));
        }
    }
    if (!adviceWatched_) {
        if (auto* advisor = parts_.advisor ? parts_.advisor() : nullptr) {
            adviceWatched_ = true;
            lateWatches_.push_back(advisor->advice.subscribe(again));
        }
    }
    if (!resultsWatched_) {
        if (auto* results = recordingResults()) {
            resultsWatched_ = true;
            // A recording whose processing moved on here: shown lists are worth asking for
            // again (a result kept again unchanged, as every look at one does, is not).
            lateWatches_.push_back(results->results.subscribe([this](const std::map<std::string, results::RecordingResult>& all) {
                std::map<std::string, std::string> states;
                for (const auto& [id, r] : all) states[id] = r.state;
                QMetaObject::invokeMethod(this, [this, states] {
                    if (states == resultStates_) return;
                    resultStates_ = states;
                    emit resultsChanged();
                }, Qt::QueuedConnection);
            }));
        }
    }
    auto& running = automation::runningAutomations();
    if (!calendarWatched_ && running.calendar) {
        calendarWatched_ = true;
        lateWatches_.push_back(running.calendar->isEnabled.subscribe(again));
    }
    if (!discardsWatched_ && running.discards) {
        discardsWatched_ = true;
        lateWatches_.push_back(running.discards->latest.subscribe([this](const std::optional<automation::DiscardedEntry>& entry) {
            scheduleRebuild();
            // The user's own discards offer the panel; a meeting nobody spoke in is told by
            // a notification instead.
            if (entry && entry->takeID != lastDiscard_.value_or("") && entry->reason == automation::DiscardReason::user) {
                lastDiscard_ = entry->takeID;
                QMetaObject::invokeMethod(this, [this] { emit discarded(); }, Qt::QueuedConnection);
            }
        }));
    }
}

void LocalBackend::scheduleRebuild() {
    if (rebuildPosted_) return;
    rebuildPosted_ = true;
    QMetaObject::invokeMethod(this, [this] {
        rebuildPosted_ = false;
        rebuild();
    }, Qt::QueuedConnection);
}

void LocalBackend::rebuild() {
    if (watches_.empty()) watch();
    auto& core = parts_.host->core();
    auto& recorder = core.recorder();
    TrayState s;
    s.phase = phaseOf(core.appState().phase.get());
    if (auto me = core.appState().me.get()) s.email = me->email;
    s.recording = recorder.state.isRecording.get();
    s.starting = recorder.isStarting();
    s.elapsed = recorder.state.elapsed.get();
    s.lastError = recorder.state.lastError.get().value_or("");
    s.calendarMeeting = recorder.state.calendarMeetingTitle.get().value_or("");
    if (s.recording) {
        auto& levels = app::inputLevels();
        if (parts_.levelsTakenElsewhere) {
            s.microphoneLevel = levels.microphone.load();
            s.systemLevel = levels.system.load();
        } else {
            s.microphoneLevel = levels.microphone.exchange(0);
            s.systemLevel = levels.system.exchange(0);
        }
    }
    const auto activity = core.uploads().activity().get();
    for (const auto& p : recorder.pending()) {
        PendingRow row{p.id, recording::toString(p.status), p.startedAt, p.finishedAt, p.lastError.value_or(""), p.attempts, {}};
        if (activity.currentID == p.id) row.progress = activity.progress;
        s.pending.push_back(std::move(row));
    }

    if (auto* mics = parts_.microphones ? parts_.microphones() : nullptr) {
        const auto devices = mics->devices.get();
        const auto defaultUID = mics->systemDefaultUID.get();
        const auto language = interfaceLanguage();
        const auto selection = mics->recordingSelection.get();
        const auto resolution = mics->recordingResolution();
        s.microphone = resolution.device ? resolution.device->name : audio::selectionLabel(audio::MicrophoneSelection::systemDefault(), devices, defaultUID, language);
        s.microphoneDisconnected = selection.kind == audio::MicrophoneSelection::Kind::device && resolution.fellBackToDefault;
        s.recordingMicrophone = selection.encoded();
        s.microphoneCount = int(devices.size());
        s.insuranceMicrophone = mics->insuranceSelection.get().encoded();
        auto add = [&](const audio::MicrophoneSelection& sel, bool bluetooth) {
            s.microphones.push_back({sel.encoded(), audio::selectionLabel(sel, devices, defaultUID, language), bluetooth});
        };
        add(audio::MicrophoneSelection::systemDefault(), false);
        add(audio::MicrophoneSelection::builtIn(), false);
        for (const auto& d : devices) {
            add(audio::MicrophoneSelection::device(d.uid), d.transport == audio::AudioInputDevice::Transport::bluetooth);
        }
        // A stored choice that is unplugged stays listed, as "Disconnected microphone".
        for (const auto& chosen : {selection, mics->insuranceSelection.get()}) {
            const bool listed = std::any_of(s.microphones.begin(), s.microphones.end(),
                                            [&](const MicrophoneOption& o) { return o.encoded == chosen.encoded(); });
            if (!listed) add(chosen, false);
        }
    }

    if (auto* ins = parts_.insurance ? parts_.insurance() : nullptr) {
        s.insuranceEnabled = ins->isEnabled.get();
        s.insuranceListening = ins->isListening.get();
        s.privacyAccepted = ins->privacyAccepted();
        s.insuranceWindowMinutes = ins->windowMinutes.get();
        s.insuranceDevice = ins->listeningDeviceName.get().value_or("");
        s.insuranceError = ins->lastError.get().value_or("");
        if (s.insuranceEnabled) {
            // The span the folder holds: from the first chunk's start to the newest end.
            const auto chunks = ins->store().chunks();
            if (!chunks.empty()) {
                auto from = chunks.front().start, to = chunks.front().end;
                for (const auto& c : chunks) {
                    from = std::min(from, c.start);
                    to = std::max(to, c.isOpen ? runtime::clock().now() : c.end);
                }
                s.bufferedSeconds = std::max(0.0, std::chrono::duration<double>(to - from).count());
            }
        }
    } else if (parts_.defaults) {
        s.privacyAccepted = parts_.defaults->boolValue(prefs::kInsurancePrivacyAccepted).value_or(false);
    }
    if (auto* agent = parts_.agentRequests ? parts_.agentRequests() : nullptr) s.agentRequests = agent->recentAnswers();

    if (auto* calls = parts_.calls ? parts_.calls() : nullptr) {
        s.callsEnabled = calls->isEnabled.get();
        s.callers = calls->activeCallers.get();
    } else if (parts_.defaults) {
        s.callsEnabled = parts_.defaults->boolValue(prefs::kAutoRecordCalls).value_or(prefs::kAutoRecordCallsDefault);
    }
    auto& running = automation::runningAutomations();
    if (running.calendar) s.calendarEnabled = running.calendar->isEnabled.get();
    else if (parts_.defaults) s.calendarEnabled = parts_.defaults->boolValue(prefs::kAutoRecordCalendar).value_or(false);
    if (parts_.defaults) s.calendarSources = parts_.defaults->stringList(prefs::kCalendarSources).value_or(std::vector<std::string>{});
    if (running.discards) {
        if (auto latest = running.discards->latest.get()) {
            s.undoAvailable = true;
            s.undoMeeting = latest->meeting.value_or("");
            s.undoSecondsLeft = running.discards->secondsLeft();
        }
    }
    if (auto* advisor = parts_.advisor ? parts_.advisor() : nullptr) s.live = liveStateOf(advisor->advice.get());
    if (preferences_) {
        s.showsDockIcon = preferences_->showsDockIcon.get();
        s.opensAtLogin = preferences_->opensAtLogin.get();
        s.loginNeedsApproval = preferences_->loginNeedsApproval.get();
        s.loginItemMissing = loginItemMissing_;
    }

    // Widgets repaint only when something they show moved.
    const bool same = s.phase == state_.phase && s.email == state_.email && s.recording == state_.recording &&
                      s.starting == state_.starting && s.elapsed == state_.elapsed &&
                      s.microphoneLevel == state_.microphoneLevel && s.systemLevel == state_.systemLevel &&
                      s.microphone == state_.microphone && s.microphoneDisconnected == state_.microphoneDisconnected &&
                      s.calendarMeeting == state_.calendarMeeting && s.lastError == state_.lastError &&
                      s.callers == state_.callers && s.pending == state_.pending && s.undoAvailable == state_.undoAvailable &&
                      s.undoMeeting == state_.undoMeeting && int(s.undoSecondsLeft) == int(state_.undoSecondsLeft) &&
                      s.insuranceEnabled == state_.insuranceEnabled && s.insuranceListening == state_.insuranceListening &&
                      s.privacyAccepted == state_.privacyAccepted && s.insuranceWindowMinutes == state_.insuranceWindowMinutes &&
                      int(s.bufferedSeconds) == int(state_.bufferedSeconds) && s.insuranceDevice == state_.insuranceDevice &&
                      s.insuranceError == state_.insuranceError && s.agentRequests == state_.agentRequests &&
                      s.callsEnabled == state_.callsEnabled &&
                      s.calendarEnabled == state_.calendarEnabled && s.calendarSources == state_.calendarSources &&
                      s.showsDockIcon == state_.showsDockIcon && s.opensAtLogin == state_.opensAtLogin &&
                      s.loginNeedsApproval == state_.loginNeedsApproval && s.loginItemMissing == state_.loginItemMissing &&
                      s.microphones == state_.microphones && s.recordingMicrophone == state_.recordingMicrophone &&
                      s.insuranceMicrophone == state_.insuranceMicrophone && s.microphoneCount == state_.microphoneCount && s.live == state_.live;
    state_ = std::move(s);
    const bool moving = state_.recording || state_.starting || state_.undoAvailable || state_.insuranceListening ||
                        sinceLaunch_ < kLaunchMilliseconds ||
                        std::any_of(state_.pending.begin(), state_.pending.end(), [](const PendingRow& r) { return r.progress.has_value(); });
    if (const int interval = moving ? kTickMilliseconds : kIdleTickMilliseconds; tick_.interval() != interval) tick_.setInterval(interval);
    if (!same) emit changed();
}

void LocalBackend::startRecording() {
    auto& recorder = parts_.host->core().recorder();
    if (recorder.state.isRecording.get() || recorder.isStarting()) return;
    recorder.start({}, [this](bool) { scheduleRebuild(); });
    scheduleRebuild();
}

void LocalBackend::stopRecording(bool discard) {
    auto& recorder = parts_.host->core().recorder();
    if (!recorder.state.isRecording.get()) return;
    recorder.stop(true, discard);
    scheduleRebuild();
}

void LocalBackend::retryUploads() { parts_.host->core().uploads().retryNow(); }

void LocalBackend::undo() {
    if (auto* discards = automation::runningAutomations().discards) discards->undo();
    scheduleRebuild();
}

void LocalBackend::enableInsurance() {
    if (auto* ins = parts_.insurance ? parts_.insurance() : nullptr) ins->acceptPrivacyAndEnable();
    scheduleRebuild();
}

void LocalBackend::disableInsurance() {
    if (auto* ins = parts_.insurance ? parts_.insurance() : nullptr) ins->disable();
    scheduleRebuild();
}

void LocalBackend::setInsuranceWindow(int minutes) {
    if (auto* ins = parts_.insurance ? parts_.insurance() : nullptr) ins->setWindowMinutes(minutes);
    scheduleRebuild();
}

void LocalBackend::signIn(const std::string& email, const std::string& password,
                          std::function<void(Expected<bool, std::string>)> done) {
    auto& state = parts_.host->core().appState();
    state.signIn(email, password, [done = std::move(done)](Expected<service::SignInStep, service::APIError> step) {
        if (!step) return done(unexpected(step.error().description()));
        done(*step == service::SignInStep::mfaRequired);
    });
}

void LocalBackend::verifyCode(const std::string& code, Reply done) {
    service::MfaAnswer answer;
    static const std::regex sixDigits(R"(\s*\d{3}\s*\d{3}\s*)");
    if (std::regex_match(code, sixDigits)) answer.code = std::regex_replace(code, std::regex(R"(\s)"), "");
    else answer.backupCode = code;
    parts_.host->core().appState().verifyMfa(answer, [done = std::move(done)](Expected<Unit, service::APIError> result) {
        done(result ? std::nullopt : std::optional<std::string>(result.error().description()));
    });
}

void LocalBackend::cancelSecondFactor() { parts_.host->core().appState().cancelMfa(); }

void LocalBackend::signOut() { parts_.host->core().appState().signOut(); }

void LocalBackend::setCallsEnabled(bool enabled) {
    if (auto* calls = parts_.calls ? parts_.calls() : nullptr) calls->setEnabled(enabled);
    else if (parts_.defaults) parts_.defaults->set(prefs::kAutoRecordCalls, enabled);
    scheduleRebuild();
}

void LocalBackend::setCalendarEnabled(bool enabled) {
    if (auto* calendar = automation::runningAutomations().calendar) calendar->setEnabled(enabled);
    else if (parts_.defaults) parts_.defaults->set(prefs::kAutoRecordCalendar, enabled);
    scheduleRebuild();
}

void LocalBackend::addCalendarSource(const std::string& source, Reply done) {
    auto added = calendar::addSource(*parts_.defaults, source);
    if (added) {
        if (auto* ics = dynamic_cast<calendar::IcsCalendarSource*>(automation::runningAutomations().calendarSource)) ics->access();
    }
    scheduleRebuild();
    done(added ? std::nullopt : std::optional<std::string>(added.error()));
}

void LocalBackend::removeCalendarSource(const std::string& source, Reply done) {
    auto removed = calendar::removeSource(*parts_.defaults, source);
    scheduleRebuild();
    done(removed ? std::nullopt : std::optional<std::string>(removed.error()));
}

void LocalBackend::setShowsDockIcon(bool shows) {
    if (preferences_) preferences_->setShowsDockIcon(shows);
}

void LocalBackend::refreshLoginItem() {
    preferences_->refreshLoginItem();
    loginItemMissing_ = parts_.loginItem->status() == app::LoginItemStatus::notFound;
}

void LocalBackend::setOpensAtLogin(bool opens) {
    if (preferences_) {
        preferences_->setOpensAtLogin(opens);
        refreshLoginItem();
    }
    scheduleRebuild();
}

void LocalBackend::setMicrophone(bool insurance, const std::string& encoded) {
    auto* mics = parts_.microphones ? parts_.microphones() : nullptr;
    if (!mics) return;
    auto selection = audio::MicrophoneSelection::decode(encoded);
    if (insurance) mics->setInsuranceSelection(selection);
    else mics->setRecordingSelection(selection);
}

void LocalBackend::refreshMicrophones() {
    if (auto* mics = parts_.microphones ? parts_.microphones() : nullptr) mics->refresh();
    scheduleRebuild();
}

insurance::InsuranceRecoveryController* LocalBackend::recoveryController() {
    if (recovery_controller_) return recovery_controller_.get();
    auto* ins = parts_.insurance ? parts_.insurance() : nullptr;
    if (!ins) return nullptr;
    auto deps = insurance::recoveryDependencies(*ins, parts_.host->core().client());
    auto* state = &parts_.host->core().appState();
    deps.signedIn = [state] { return state->phase.get() == app::AppState::Phase::signedIn; };
    deps.accountID = [state] { return state->accountID(); };
    deps.handleError = [state](const service::APIError& error) {
        if (error.isSessionRejection()) state->handleUnauthenticated();
    };
    if (parts_.copy) deps.copy = parts_.copy;
    recovery_controller_ = std::make_unique<insurance::InsuranceRecoveryController>(std::move(deps));
    auto again = [this](const auto&) {
        QMetaObject::invokeMethod(this, [this] { rebuildRecovery(); }, Qt::QueuedConnection);
    };
    auto* c = recovery_controller_.get();
    recoveryWatches_.push_back(c->phase.subscribe(again));
    recoveryWatches_.push_back(c->text.subscribe(again));
    recoveryWatches_.push_back(c->copyConfirmation.subscribe(again));
    recoveryWatches_.push_back(c->selection.subscribe(again));
    recoveryWatches_.push_back(c->transcript.subscribe(again));
    recoveryWatches_.push_back(c->isPlaying.subscribe(again));
    recoveryWatches_.push_back(c->position.subscribe(again));
    return c;
}

void LocalBackend::rebuildRecovery() {
    RecoveryView v;
    if (auto* c = recovery_controller_.get()) {
        const auto phase = c->phase.get();
        switch (phase.kind) {
            case insurance::Phase::Kind::idle: v.phase = RecoveryView::Phase::idle; break;
            case insurance::Phase::Kind::transcribing: v.phase = RecoveryView::Phase::transcribing; break;
            case insurance::Phase::Kind::improving: v.phase = RecoveryView::Phase::improving; break;
            case insurance::Phase::Kind::failed: v.phase = RecoveryView::Phase::failed; break;
        }
        v.message = phase.message;
        v.display = c->displayText();
        v.copyConfirmation = c->copyConfirmation.get();
        v.hasSelection = !c->selectedChunks().empty();
        v.finished = c->transcript.get().has_value();
        v.canPlay = bool(insurance::previewPlayerFactory());
        v.playing = c->isPlaying.get();
        v.position = c->position.get();
    }
    recovery_ = std::move(v);
    emit recoveryChanged();
}

void LocalBackend::recoverChoose(RecoveryRange range, int customMinutes) {
    if (auto* c = recoveryController()) {
        c->refresh();
        c->choose(rangeOf(range), customMinutes);
    }
    rebuildRecovery();
}

void LocalBackend::recoverPlay() {
    if (auto* c = recovery_controller_.get()) c->play();
}

void LocalBackend::recoverPause() {
    if (auto* c = recovery_controller_.get()) c->pause();
}

void LocalBackend::recoverClose() {
    // Late answers of a closed panel change nothing: a new run voids them.
    if (recovery_controller_) {
        recoveryWatches_.clear();
        recovery_controller_.reset();
    }
    recovery_ = {};
}

void LocalBackend::recoverCopy(const std::string& selectedText) {
    auto* c = recovery_controller_.get();
    if (!c) return;
    if (!selectedText.empty()) {
        const bool ok = parts_.copy && parts_.copy(selectedText);
        c->copyConfirmation.set(ok ? insurance::messages::kSelectionCopied.str() : insurance::messages::kCouldNotCopy.str());
    } else {
        c->copy();
    }
    rebuildRecovery();
}

results::RecordingResults* LocalBackend::recordingResults() const { return parts_.results ? parts_.results() : nullptr; }

template <class T>
void LocalBackend::unavailable(Answer<T> done) {
    QMetaObject::invokeMethod(this, [done = std::move(done)] { done(unexpected(messages::kResultsUnavailable.str())); },
                              Qt::QueuedConnection);
}

void LocalBackend::listRecordings(Answer<std::vector<ResultItem>> done) {
    auto* results = recordingResults();
    if (!results) return unavailable(std::move(done));
    results->list([done = std::move(done)](Expected<std::vector<results::Fetched>, std::string> list) {
        if (!list) return done(unexpected(list.error()));
        std::vector<ResultItem> items;
        for (auto& f : *list) items.push_back({std::move(f.result), f.offlineBecause.value_or("")});
        done(std::move(items));
    });
}

void LocalBackend::recordingDetail(const std::string& id, Answer<ResultItem> done) {
    auto* results = recordingResults();
    if (!results) return unavailable(std::move(done));
    results->detail(id, [done = std::move(done)](Expected<results::Fetched, std::string> f) {
        if (!f) return done(unexpected(f.error()));
        done(ResultItem{std::move(f->result), f->offlineBecause.value_or("")});
    });
}

void LocalBackend::renameSpeakers(const std::string& id, const std::map<int, std::string>& names,
                                  Answer<results::RecordingResult> done) {
    auto* results = recordingResults();
    if (!results) return unavailable(std::move(done));
    results->renameSpeakers(id, names, std::move(done));
}

void LocalBackend::shareRecording(const std::string& id, Answer<SharedLink> done) {
    auto* results = recordingResults();
    if (!results) return unavailable(std::move(done));
    results->share(id, [copy = parts_.copy, done = std::move(done)](Expected<std::string, std::string> url) {
        if (!url) return done(unexpected(url.error()));
        done(SharedLink{*url, copy && copy(*url)});
    });
}

void LocalBackend::quit(std::function<void()> done) { parts_.host->quit(std::move(done)); }

}  // namespace vell::tray
