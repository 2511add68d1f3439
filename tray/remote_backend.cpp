#include "tray/remote_backend.h"

#include <QClipboard>
#include <QGuiApplication>
#include <nlohmann/json.hpp>

#include "insurance/insurance_messages.h"
#include "insurance/insurance_status.h"
#include "live/live_advisor.h"
#include "results/results_messages.h"
#include "base/user_defaults.h"
#include "platform/dbus/control_client.h"
#include "recording/pending_recording_coding.h"
#include "tray/local_backend.h"

namespace vell::tray {

namespace {

using Json = nlohmann::json;
constexpr int kPollMilliseconds = 500;
// The pending list and the automations are read every this many polls.
constexpr int kSlowPollEvery = 4;
// After a recording ended, the live advice is read this many more polls (its last cues
// come once the last segment went out) unless its session closed before.
constexpr int kLiveTailPolls = 40;

SignInPhase phaseNamed(const std::string& name) {
    if (name == "signedOut") return SignInPhase::signedOut;
    if (name == "mfaRequired") return SignInPhase::mfaRequired;
    if (name == "signedIn") return SignInPhase::signedIn;
    return SignInPhase::launching;
}

RecoveryView::Phase recoveryPhaseNamed(const std::string& name) {
    if (name == "transcribing") return RecoveryView::Phase::transcribing;
    if (name == "improving") return RecoveryView::Phase::improving;
    if (name == "failed") return RecoveryView::Phase::failed;
    return RecoveryView::Phase::idle;
}

// A recording's results in the control interface's form; the host's sentence when it failed.
Expected<ResultItem, std::string> resultItem(const Json& json) {
    auto result = results::decodeResult(json);
    if (!result) return unexpected(results::messages::kUnreadable.str());
    ResultItem item{std::move(*result), {}};
    if (auto it = json.find("offline"); it != json.end() && it->is_string()) item.offline = it->get<std::string>();
    return item;
}

std::optional<Json> parse(const dbus::ControlClient::Result<std::string>& answer) {
    if (!answer) return std::nullopt;
    auto json = Json::parse(*answer, nullptr, false);
    if (json.is_discarded()) return std::nullopt;
    return json;
}

template <class T>
std::optional<std::string> errorOf(const dbus::ControlClient::Result<T>& answer) {
    if (answer) return std::nullopt;
    return answer.error().message;
}

}  // namespace

RemoteBackend::RemoteBackend(std::unique_ptr<dbus::ControlClient> client) : client_(std::move(client)) {
    loginItem_ = desktopLoginItem();
    preferences_ = std::make_unique<app::AppPreferences>(UserDefaults::standard(), *loginItem_);
    readPreferences();
    worker_ = std::thread([this] {
        for (;;) {
            Job job;
            {
                std::unique_lock lock(mutex_);
                wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
                if (stopping_) return;
                job = std::move(jobs_.front());
                jobs_.pop_front();
            }
            job(*client_);
        }
    });
    timer_.setInterval(kPollMilliseconds);
    connect(&timer_, &QTimer::timeout, this, &RemoteBackend::poll);
    timer_.start();
    recoveryTimer_.setInterval(kPollMilliseconds);
    connect(&recoveryTimer_, &QTimer::timeout, this, &RemoteBackend::pollRecovery);
    poll();
}

RemoteBackend::~RemoteBackend() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        jobs_.clear();
    }
    wake_.notify_all();
    alive_.reset();
    if (worker_.joinable()) worker_.join();
}

void RemoteBackend::readPreferences() {
    state_.showsDockIcon = preferences_->showsDockIcon.get();
    state_.opensAtLogin = preferences_->opensAtLogin.get();
    state_.loginNeedsApproval = preferences_->loginNeedsApproval.get();
    state_.loginItemMissing = loginItem_->status() == app::LoginItemStatus::notFound;
}

void RemoteBackend::setShowsDockIcon(bool shows) {
    preferences_->setShowsDockIcon(shows);
    readPreferences();
    emit changed();
}

void RemoteBackend::setOpensAtLogin(bool opens) {
    preferences_->setOpensAtLogin(opens);
    readPreferences();
    emit changed();
}

void RemoteBackend::enqueue(Job job) {
    {
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
    }
    wake_.notify_one();
}

void RemoteBackend::onGui(std::function<void()> work) {
    std::weak_ptr<int> alive = alive_;
    QMetaObject::invokeMethod(this, [alive, work = std::move(work)] {
        if (!alive.expired()) work();
    }, Qt::QueuedConnection);
}

void RemoteBackend::poll() {
    if (polling_ || lost_) return;
    polling_ = true;
    const bool slow = polls_++ % kSlowPollEvery == 0;
    const bool liveWanted = state_.recording || liveTail_ > 0;
    enqueue([this, slow, liveWanted](dbus::ControlClient& client) {
        auto status = client.status();
        std::optional<Json> pending, insurance, calls, calendar, advice;
        if (status && (status->recording || liveWanted)) advice = parse(client.liveAdvice());
        if (slow && status) {
            pending = parse(client.pending());
            insurance = parse(client.insuranceStatus());
            calls = parse(client.callsStatus());
            calendar = parse(client.calendarReport(false));
        }
        onGui([this, status, pending, insurance, calls, calendar, advice] {
            polling_ = false;
            if (!status) {
                lost_ = true;
                timer_.stop();
                if (!quittingHost_) emit hostLost();
                return;
            }
            auto& s = state_;
            s.phase = phaseNamed(status->phase);
            s.email = status->userEmail;
            s.recording = status->recording;
            if (s.recording) s.starting = false;
            s.elapsed = status->elapsed;
            s.microphoneLevel = status->microphoneLevel;
            s.systemLevel = status->systemLevel;
            s.lastError = status->lastError;
            if (advice) {
                if (auto a = live::liveAdviceFromJson(*advice)) s.live = liveStateOf(*a);
            }
            if (s.recording) liveTail_ = kLiveTailPolls;
            else if (liveTail_ > 0 && (--liveTail_ == 0 || s.live.closed)) liveTail_ = 0;
            if (pending) {
                s.pending.clear();
                long uploaded = 0;
                if (auto list = recording::coding::decodeReadableEntries(pending->dump())) {
                    for (const auto& p : *list) {
                        s.pending.push_back({p.id, recording::toString(p.status), p.startedAt, p.finishedAt,
                                             p.lastError.value_or(""), p.attempts, {}});
                        if (p.status == recording::PendingRecording::Status::uploaded) ++uploaded;
                    }
                }
                // Another recording reached the service: its results are on their way.
                if (uploaded != uploadedSeen_) {
                    if (uploadedSeen_ >= 0) emit resultsChanged();
                    uploadedSeen_ = uploaded;
                }
            }
            if (insurance) {
                s.insuranceEnabled = insurance->value("enabled", false);
                s.insuranceListening = insurance->value("listening", false);
                s.privacyAccepted = insurance->value("privacyAccepted", false);
                s.insuranceWindowMinutes = insurance->value("windowMinutes", 15);
                s.bufferedSeconds = insurance->value("bufferedSeconds", 0.0);
                auto text = [&](const char* key) {
                    auto it = insurance->find(key);
                    return it != insurance->end() && it->is_string() ? it->get<std::string>() : std::string();
                };
                s.insuranceDevice = text("device");
                s.insuranceError = text("lastError");
                s.agentRequests = vell::insurance::statusFromJson(*insurance).agentRequests;
            }
            if (calls) {
                s.callsEnabled = calls->value("enabled", true);
                s.callers.clear();
                if (auto it = calls->find("activeCallers"); it != calls->end() && it->is_array()) {
                    for (const auto& name : *it)
                        if (name.is_string()) s.callers.push_back(name.get<std::string>());
                }
            }
            if (calendar) {
                s.calendarEnabled = calendar->value("enabled", false);
                s.calendarSources.clear();
                if (auto it = calendar->find("sources"); it != calendar->end() && it->is_array()) {
                    for (const auto& source : *it) {
                        if (source.is_string()) s.calendarSources.push_back(source.get<std::string>());
                        else if (source.is_object() && source.contains("source")) s.calendarSources.push_back(source["source"].get<std::string>());
                    }
                }
                auto undo = calendar->value("undo", Json::object());
                s.undoAvailable = undo.contains("takeID");
                s.undoMeeting = undo.contains("meeting") && undo["meeting"].is_string() ? undo["meeting"].get<std::string>() : "";
                s.undoSecondsLeft = undo.value("secondsLeft", 0.0);
            }
            emit changed();
        });
    });
}

void RemoteBackend::simple(std::function<void(dbus::ControlClient&)> call) {
    enqueue([this, call = std::move(call)](dbus::ControlClient& client) {
        call(client);
        onGui([this] {
            polls_ = 0;  // the next poll reads everything
            poll();
        });
    });
}

void RemoteBackend::startRecording() {
    state_.starting = true;
    emit changed();
    simple([](dbus::ControlClient& c) { (void)c.startRecording(); });
}
void RemoteBackend::stopRecording(bool discard) {
    simple([discard](dbus::ControlClient& c) { (void)c.stopRecording(discard); });
}
void RemoteBackend::retryUploads() {
    simple([](dbus::ControlClient& c) { (void)c.upload(); });
}
void RemoteBackend::undo() {
    simple([](dbus::ControlClient& c) { (void)c.undo(); });
}
void RemoteBackend::enableInsurance() {
    simple([](dbus::ControlClient& c) { (void)c.insuranceEnable(); });
}
void RemoteBackend::disableInsurance() {
    simple([](dbus::ControlClient& c) { (void)c.insuranceDisable(); });
}
void RemoteBackend::setInsuranceWindow(int minutes) {
    simple([minutes](dbus::ControlClient& c) { (void)c.insuranceSetWindow(minutes); });
}
void RemoteBackend::signOut() {
    simple([](dbus::ControlClient& c) { (void)c.signOut(); });
}
void RemoteBackend::setCallsEnabled(bool enabled) {
    simple([enabled](dbus::ControlClient& c) { (void)c.setCallsEnabled(enabled); });
}
void RemoteBackend::setCalendarEnabled(bool enabled) {
    simple([enabled](dbus::ControlClient& c) { (void)c.calendarSetEnabled(enabled); });
}

void RemoteBackend::signIn(const std::string& email, const std::string& password,
                           std::function<void(Expected<bool, std::string>)> done) {
    enqueue([this, email, password, done = std::move(done)](dbus::ControlClient& c) {
        auto step = c.signIn(email, password);
        onGui([this, step, done] {
            polls_ = 0;
            if (!step) return done(unexpected(step.error().message));
            done(*step == "mfaRequired");
        });
    });
}

void RemoteBackend::verifyCode(const std::string& code, Reply done) {
    enqueue([this, code, done = std::move(done)](dbus::ControlClient& c) {
        auto result = c.verifyCode(code);
        onGui([this, error = errorOf(result), done] {
            polls_ = 0;
            done(error);
        });
    });
}

void RemoteBackend::addCalendarSource(const std::string& source, Reply done) {
    enqueue([this, source, done = std::move(done)](dbus::ControlClient& c) {
        auto result = c.calendarAdd(source);
        onGui([this, error = errorOf(result), done] {
            polls_ = 0;
            done(error);
        });
    });
}

void RemoteBackend::removeCalendarSource(const std::string& source, Reply done) {
    enqueue([this, source, done = std::move(done)](dbus::ControlClient& c) {
        auto result = c.calendarRemove(source);
        onGui([this, error = errorOf(result), done] {
            polls_ = 0;
            done(error);
        });
    });
}

void RemoteBackend::recoverChoose(RecoveryRange range, int customMinutes) {
    const char* name = range == RecoveryRange::lastFive ? "five"
                     : range == RecoveryRange::custom   ? "custom"
                     : range == RecoveryRange::all      ? "all"
                                                        : "minute";
    recovery_ = {};
    emit recoveryChanged();
    enqueue([this, name = std::string(name), customMinutes](dbus::ControlClient& c) {
        auto run = c.recoverStart(name, customMinutes);
        onGui([this, run] {
            if (!run) {
                recovery_.phase = RecoveryView::Phase::failed;
                recovery_.message = run.error().message;
            } else {
                recoveryRun_ = *run;
                recovery_.hasSelection = *run != 0;
                if (*run != 0) recoveryTimer_.start();
            }
            emit recoveryChanged();
        });
    });
}

void RemoteBackend::pollRecovery() {
    const int run = recoveryRun_;
    enqueue([this, run](dbus::ControlClient& c) {
        auto progress = parse(c.recoverProgress(run));
        onGui([this, run, progress] {
            if (!progress || run != recoveryRun_) return;
            const auto phase = progress->value("phase", std::string("idle"));
            if (phase == "stale") return recoveryTimer_.stop();
            recovery_.phase = recoveryPhaseNamed(phase);
            recovery_.display = progress->value("display", std::string());
            recovery_.message = progress->value("message", std::string());
            recovery_.finished = progress->contains("transcript");
            if (recovery_.finished || recovery_.phase == RecoveryView::Phase::failed) recoveryTimer_.stop();
            emit recoveryChanged();
        });
    });
}

void RemoteBackend::recoverClose() {
    recoveryTimer_.stop();
    recoveryRun_ = 0;
    recovery_ = {};
}

void RemoteBackend::recoverCopy(const std::string& selectedText) {
    namespace m = insurance::messages;
    const std::string text = selectedText.empty() ? recovery_.display : selectedText;
    auto* clipboard = QGuiApplication::clipboard();
    const bool ok = clipboard && !text.empty();
    if (ok) {
        clipboard->clear();
        clipboard->setText(QString::fromStdString(text));
    }
    recovery_.copyConfirmation = !ok ? m::kCouldNotCopy.str() : selectedText.empty() ? m::kCopied.str() : m::kSelectionCopied.str();
    emit recoveryChanged();
}

void RemoteBackend::listRecordings(Answer<std::vector<ResultItem>> done) {
    enqueue([this, done = std::move(done)](dbus::ControlClient& c) {
        auto answer = c.recordings();
        onGui([answer, done] {
            if (!answer) return done(unexpected(answer.error().message));
            const auto list = Json::parse(*answer, nullptr, false);
            if (!list.is_array()) return done(unexpected(results::messages::kUnreadable.str()));
            std::vector<ResultItem> items;
            for (const auto& entry : list) {
                // One unreadable entry does not hide the others.
                if (auto item = resultItem(entry)) items.push_back(std::move(*item));
            }
            done(std::move(items));
        });
    });
}

void RemoteBackend::recordingDetail(const std::string& id, Answer<ResultItem> done) {
    enqueue([this, id, done = std::move(done)](dbus::ControlClient& c) {
        auto answer = c.recordingDetail(id);
        onGui([answer, done] {
            if (!answer) return done(unexpected(answer.error().message));
            done(resultItem(Json::parse(*answer, nullptr, false)));
        });
    });
}

void RemoteBackend::renameSpeakers(const std::string& id, const std::map<int, std::string>& names,
                                   Answer<results::RecordingResult> done) {
    Json wanted = Json::object();
    for (const auto& [index, name] : names) wanted[std::to_string(index)] = name;
    enqueue([this, id, wanted = wanted.dump(), done = std::move(done)](dbus::ControlClient& c) {
        auto answer = c.renameSpeakers(id, wanted);
        onGui([answer, done] {
            if (!answer) return done(unexpected(answer.error().message));
            auto item = resultItem(Json::parse(*answer, nullptr, false));
            if (!item) return done(unexpected(item.error()));
            done(item->result);
        });
    });
}

void RemoteBackend::shareRecording(const std::string& id, Answer<SharedLink> done) {
    enqueue([this, id, done = std::move(done)](dbus::ControlClient& c) {
        auto answer = c.shareRecording(id);
        onGui([answer, done] {
            if (!answer) return done(unexpected(answer.error().message));
            auto* clipboard = QGuiApplication::clipboard();
            const bool copied = clipboard && !answer->empty();
            if (copied) {
                clipboard->clear();
                clipboard->setText(QString::fromStdString(*answer));
            }
            done(SharedLink{*answer, copied});
        });
    });
}

// A front end leaves the host running: only this window on it closes.
void RemoteBackend::quit(std::function<void()> done) {
    timer_.stop();
    if (done) done();
}

void RemoteBackend::quitHost(std::function<void()> done) {
    // No more polls: the host going away now is what was asked, not a host lost.
    timer_.stop();
    quittingHost_ = true;
    enqueue([this, done = std::move(done)](dbus::ControlClient& client) {
        (void)client.quit();
        onGui([done] {
            if (done) done();
        });
    });
}

}  // namespace vell::tray
