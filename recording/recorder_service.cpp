#include "recording/recorder_service.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <mutex>

#include "base/private_folder.h"
#include "audio/adts_frames.h"
#include "audio/error_sentence.h"
#include "audio/errors.h"
#include "base/log.h"
#include "base/runtime.h"
#include "base/uuid.h"
#include "recording/recorder_messages.h"
#include "recording/recovery_scan.h"

namespace vell::recording {

namespace fs = std::filesystem;
using Status = PendingRecording::Status;

namespace {
const log::Logger kLog("Recorder");

std::mutex& providerLock() {
    static std::mutex m;
    return m;
}
std::function<RecorderParts()>& provider() {
    static std::function<RecorderParts()> p;
    return p;
}

double secondsBetween(WallTime from, WallTime to) { return std::chrono::duration<double>(to - from).count(); }

bool isAdtsFile(const fs::path& file) {
    std::string ext = file.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext == ".aac";
}

// A decoder gives nothing for the first frame alone (it primes the decoder).
bool hasDecodableAudio(const media::AdtsExtent& extent) { return extent.frames >= 2; }

// Repairs the ADTS files of the folder that no entry names and drops those with no audio.
void trimOrphanFiles(const fs::path& directory, const std::vector<PendingRecording>& list) {
    std::set<fs::path> named;
    for (const auto& r : list) named.insert(r.fileURL.lexically_normal());
    std::error_code ec;
    for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) {
        const fs::path& path = it->path();
        if (path.filename().string().rfind(kRecordingFilePrefix, 0) != 0 || !isAdtsFile(path)) continue;
        std::error_code typeError;
        if (!it->is_regular_file(typeError) || it->is_symlink(typeError)) continue;
        if (named.count(path.lexically_normal())) continue;
        std::error_code trimError;
        const auto extent = media::trimAdtsFile(path, trimError);
        if (trimError || !extent.startsWithSync || hasDecodableAudio(extent)) continue;
        // Cut off before its first frames were out (or its frames were all damaged): no
        // decoder reads anything from it, so uploading it would only fail on the service.
        kLog.info("dropped " + path.filename().string() + ": no decodable audio");
        fs::remove(path, trimError);
        clearDiscardMark(path);
    }
}
}  // namespace

// One recording's audio objects, shared with the microphone queue and the callbacks.
// `closed` is read and written on the microphone queue only.
struct RecorderService::Session {
    std::string id;
    std::optional<audio::MicrophoneTarget> microphone;
    std::shared_ptr<audio::RecordingMixer> mixer;
    bool systemRunning = false;
    bool closed = false;
};

RecorderService::RecorderService(RecorderParts parts, fs::path directory)
    : parts_(std::move(parts)), listFile_(std::move(directory)), micQueue_(std::make_unique<SerialQueue>(queues::kMic)) {
    loadAndRecover();
}

RecorderService::~RecorderService() {
    ticker_.cancel();
    if (auto session = session_) {
        // Going away mid-recording (tests, process teardown): close the audio so the file
        // is complete; the entry stays "recording" and is settled at the next start-up.
        micQueue_->sync([&] {
            session->closed = true;
            if (parts_.microphone) parts_.microphone->stop();
            if (parts_.systemAudio && session->systemRunning) parts_.systemAudio->stop();
            session->mixer->finish();
        });
    }
    // A start still under way when the recorder goes may have opened the devices.
    micQueue_->sync([&] {
        if (parts_.microphone) parts_.microphone->stop();
        if (parts_.systemAudio) parts_.systemAudio->stop();
    });
}

RecorderService& RecorderService::shared() {
    // Never destroyed: its queue and timers may still be referenced while the process ends.
    static RecorderService* instance = [] {
        std::function<RecorderParts()> make;
        {
            std::lock_guard lock(providerLock());
            make = provider();
        }
        return new RecorderService(make ? make() : RecorderParts{});
    }();
    return *instance;
}

void RecorderService::setSharedPartsProvider(std::function<RecorderParts()> p) {
    std::lock_guard lock(providerLock());
    provider() = std::move(p);
}

// ---- pending list ----

void RecorderService::loadAndRecover() {
    if (auto loaded = listFile_.load()) list_ = std::move(*loaded);
    const WallTime now = runtime::clock().now();
    const std::string note = messages::kRecovered.str();
    // A run cut off by a full disk or a crash may have left half a frame at the end of an
    // ADTS file; decoders read a file to its end only without it. Orphans are trimmed
    // before the scan, so one left with no whole frame is not recovered.
    bool changed = false;
    for (auto it = list_.begin(); it != list_.end();) {
        if (it->status != Status::recording || !isAdtsFile(it->fileURL)) {
            ++it;
            continue;
        }
        std::error_code ec;
        const auto extent = media::trimAdtsFile(it->fileURL, ec);
        if (!ec && extent.startsWithSync && !hasDecodableAudio(extent)) {
            kLog.info("dropped interrupted recording " + it->id + ": no decodable audio was saved");
            fs::remove(it->fileURL, ec);
            it = list_.erase(it);
            changed = true;
        } else {
            ++it;
        }
    }
    trimOrphanFiles(listFile_.directory(), list_);
    changed = settleInterrupted(list_, now, note) > 0 || changed;
    auto orphans = findOrphanRecordings(listFile_.directory(), list_, now, note);
    for (auto& r : orphans) {
        kLog.info("recovered interrupted recording " + r.fileURL.filename().string());
        unownedThisRun_.insert(r.id);
        list_.push_back(std::move(r));
    }
    if (changed || !orphans.empty()) {
        // Tell the user that something cut a recording short.
        state.lastError.set(note);
        commitList();
    } else {
        state.pending.set(list_);
    }
}

bool RecorderService::commitList() {
    std::error_code error;
    const bool saved = listFile_.save(list_, error);
    if (saved) {
        if (saveFailure_) kLog.info("pending list saved again");
        saveFailure_.reset();
    } else {
        // Once per run of failures: a full disk refuses every save of a pass alike.
        if (!saveFailure_) kLog.error("pending list save failed: " + error.message());
        saveFailure_ = error.message();
    }
    state.pending.set(list_);
    return saved;
}

bool RecorderService::update(const std::string& id, const std::function<void(PendingRecording&)>& change) {
    auto it = std::find_if(list_.begin(), list_.end(), [&](const PendingRecording& r) { return r.id == id; });
    if (it == list_.end()) return false;
    const bool wasDiscarded = it->status == Status::discarded;
    change(*it);
    // The mark beside the file outlives a lost or damaged list: the recovery scan must
    // never bring a discarded recording back as one to upload.
    const bool isDiscarded = it->status == Status::discarded;
    if (isDiscarded && !wasDiscarded) markDiscarded(it->fileURL, it->discardedAt.value_or(runtime::clock().now()));
    if (wasDiscarded && !isDiscarded) clearDiscardMark(it->fileURL);
    commitList();
    return true;
}

void RecorderService::add(PendingRecording recording) {
    if (recording.status == Status::discarded) {
        markDiscarded(recording.fileURL, recording.discardedAt.value_or(runtime::clock().now()));
    }
    list_.push_back(std::move(recording));
    commitList();
}

bool RecorderService::remove(const std::string& id) {
    auto it = std::find_if(list_.begin(), list_.end(), [&](const PendingRecording& r) { return r.id == id; });
    if (it == list_.end()) return false;
    if (it->status == Status::discarded) clearDiscardMark(it->fileURL);
    list_.erase(it);
    commitList();
    return true;
}

int RecorderService::assignAccountToThisRun(const std::string& accountID) {
    int changed = 0;
    for (auto& r : list_) {
        if (!unownedThisRun_.count(r.id) || r.accountID) continue;
        r.accountID = accountID;
        ++changed;
    }
    unownedThisRun_.clear();
    if (changed > 0) commitList();
    return changed;
}

int RecorderService::assignAccountToUnowned(const std::string& accountID) {
    int changed = adoptUnowned(list_, accountID);
    if (changed > 0) {
        kLog.info("assigned " + std::to_string(changed) + " earlier recordings to the signed-in account");
        commitList();
    }
    return changed;
}

// ---- start ----

void RecorderService::start(StartOptions options, std::function<void(bool)> done) {
    if (state.isRecording.get() || starting_) {
        if (done) done(false);
        return;
    }
    starting_ = true;
    auto finishWith = [&](const std::string& message) {
        failStart(message);
        if (done) done(false);
    };
    if (!parts_.canRecord()) return finishWith(messages::kNoAudioParts.str());

    auto session = std::make_shared<Session>();
    session->id = newUUIDString();
    std::error_code dirError;
    files::createPrivateDirectories(listFile_.directory(), dirError);
    const fs::path file = listFile_.directory() / (std::string(kRecordingFilePrefix) + session->id + ".aac");
    try {
        if (dirError) throw audio::MixerOpenError("cannot create " + listFile_.directory().string() + ": " + dirError.message());
        std::unique_ptr<audio::RecordingMixer> mixer = parts_.makeMixer(file, kSampleRate);
        if (!mixer) throw audio::MixerOpenError("no mixer");
        session->mixer = std::move(mixer);
        installMixerCallbacks(session);
        session->mixer->open();
    } catch (const std::exception& e) {
        kLog.error(std::string("mixer open failed: ") + e.what());
        std::error_code ignored;
        if (session->mixer) fs::remove(session->mixer->outputFile(), ignored);
        return finishWith(messages::kMixerFailed.str());
    }

    std::optional<std::string> liveSessionID;
    if (parts_.liveAdvisor.begin && parts_.hasServiceSession && parts_.hasServiceSession()) {
        liveSessionID = parts_.liveAdvisor.begin(session->id);
    }
    session->microphone = options.microphone;
    const auto target = chooseTarget(session.get());
    startOnMicQueue(std::move(session), target, std::move(options), std::move(liveSessionID), std::move(done));
}

audio::MicrophoneTarget RecorderService::chooseTarget(const Session* session) {
    if (session && session->microphone) {
        chosenFellBack_ = false;
        return *session->microphone;
    }
    // The selection lives on the main executor; the queue only gets its answer.
    chosenFellBack_ = parts_.chooser && parts_.chooser->recordingFellBackToDefault();
    return parts_.chooser ? parts_.chooser->recordingTarget() : audio::MicrophoneTarget{};
}

void RecorderService::startOnMicQueue(std::shared_ptr<Session> session, audio::MicrophoneTarget target, StartOptions options,
                                      std::optional<std::string> liveSessionID, std::function<void(bool)> done) {
    std::weak_ptr<int> alive = alive_;
    micQueue_->post([this, alive, session, target, options = std::move(options), liveSessionID = std::move(liveSessionID),
                     done = std::move(done)]() mutable {
        std::optional<std::string> failure;
        try {
            startMic(session, target, false);
        } catch (const audio::MicrophonePermissionError&) {
            failure = messages::kMicrophonePermissionMissing.str();
        } catch (const audio::MixerOpenError&) {
            failure = messages::kMixerFailed.str();
        } catch (const audio::SoundServerNotAnswering& e) {
            kLog.error(std::string("sound server not answering: ") + e.what());
            failure = messages::kSoundServerNotAnswering.str();
        } catch (const std::exception& e) {
            failure = audio::failureSentence(e);
        }
        if (!failure && parts_.systemAudio) {
            auto mixer = session->mixer;
            try {
                parts_.systemAudio->start([mixer](audio::PcmBufferPtr b) { mixer->appendSystem(std::move(b)); });
                mixer->setSystemEnabled(true);
                session->systemRunning = true;
            } catch (const std::exception& e) {
                // The microphone alone still makes a useful recording.
                kLog.error(std::string("system audio unavailable, recording the microphone only: ") + e.what());
            }
        }
        if (failure) {
            kLog.error("startMic(mixer:restart:) failed: " + *failure);
            session->closed = true;
            parts_.microphone->stop();
            session->mixer->finish();
            std::error_code ignored;
            fs::remove(session->mixer->outputFile(), ignored);
        }
        runtime::runOnMain([this, alive, session, options, liveSessionID, failure, done] {
            if (alive.expired()) return;
            bool started = false;
            if (failure) {
                failStart(*failure);
            } else {
                started = finishStart(session, options, liveSessionID);
            }
            // A live session opened for this recording has nothing to follow.
            if (!started && liveSessionID && parts_.liveAdvisor.recordingEnded) parts_.liveAdvisor.recordingEnded(session->id);
            if (done) done(started);
        });
    });
}

void RecorderService::startMic(const std::shared_ptr<Session>& session, const audio::MicrophoneTarget& target, bool restart) {
    if (restart) parts_.microphone->stop();
    auto mixer = session->mixer;
    std::weak_ptr<Session> weak = session;
    std::weak_ptr<int> alive = alive_;
    parts_.microphone->start(
        target, [mixer](audio::PcmBufferPtr b) { mixer->appendMicrophone(std::move(b)); },
        // From any thread: choose the device again on main (the default may have changed),
        // then reopen on the microphone queue.
        [this, alive, weak] {
            runtime::runOnMain([this, alive, weak] {
                if (alive.expired() || weak.expired()) return;
                micQueue_->post([this, weak, target = chooseTarget(weak.lock().get())] { reopenMic(weak, target); });
            });
        });
}

void RecorderService::reopenMic(const std::weak_ptr<Session>& weak, const audio::MicrophoneTarget& target, bool retrying) {
    auto session = weak.lock();
    if (!session || session->closed) return;
    if (retrying && parts_.microphone->isRunning()) return;  // a device change got there first
    if (!retrying) kLog.info("microphone changed; reopening");
    std::weak_ptr<int> alive = alive_;
    std::string id = session->id;
    try {
        startMic(session, target, true);
    } catch (const std::exception& e) {
        std::string detail = dynamic_cast<const audio::MicrophonePermissionError*>(&e)
                                 ? messages::kMicrophonePermissionMissing.str()
                                 : audio::failureSentence(e);
        if (retrying) {
            kLog.debug("startMic(mixer:restart:) failed again: " + detail);
        } else {
            kLog.error("startMic(mixer:restart:) failed: " + detail);
        }
        runtime::runOnMain([this, alive, weak, id, detail] {
            if (alive.expired() || currentID_ != id) return;
            state.lastError.set(messages::kMicrophoneReopenFailed.str() + detail);
            runtime::main().postAfter(kMicRetrySeconds, [this, alive, weak, id] {
                if (alive.expired() || weak.expired() || currentID_ != id) return;
                micQueue_->post([this, weak, target = chooseTarget(weak.lock().get())] { reopenMic(weak, target, true); });
            });
        });
        return;
    }
    runtime::runOnMain([this, alive, id] {
        if (!alive.expired() && currentID_ == id) showMicrophoneFallback();
    });
    if (!retrying) return;
    kLog.info("microphone reopened");
    runtime::runOnMain([this, alive, id] {
        if (alive.expired() || currentID_ != id) return;
        const auto shown = state.lastError.get();
        if (shown && shown->rfind(messages::kMicrophoneReopenFailed.str(), 0) == 0) state.lastError.set(std::nullopt);
    });
}

void RecorderService::installMixerCallbacks(const std::shared_ptr<Session>& session) {
    auto speech = parts_.speech;
    auto sink = parts_.liveSegments;
    auto liveActive = parts_.liveAdvisor.isActive;
    session->mixer->onMixedBuffer = [speech, sink, liveActive](audio::PcmBufferPtr buffer) {
        if (speech) speech->analyze(buffer);
        if (sink && (!liveActive || liveActive())) sink->append(buffer);
    };
    auto tracker = systemTapSilence_;
    std::weak_ptr<int> alive = alive_;
    std::string id = session->id;
    // System blocks come in bursts at every mixer tick; one hop to the main thread at a time
    // is enough to keep the meaningful-audio time current.
    auto hopPending = std::make_shared<std::atomic<bool>>(false);
    session->mixer->onSystemBuffer = [this, tracker, alive, id, hopPending](audio::PcmBufferPtr buffer) {
        bool silent = audio::isDigitalSilence(*buffer);
        tracker->update(silent, runtime::clock().now());
        if (silent || hopPending->exchange(true)) return;
        runtime::runOnMain([this, alive, id, hopPending] {
            hopPending->store(false);
            if (!alive.expired()) markMeaningfulAudio(id);
        });
    };
    session->mixer->onWriteError = [this, alive, id](const std::string& error) {
        kLog.error("recording file write failed: " + error);
        runtime::runOnMain([this, alive, id] {
            if (alive.expired() || currentID_ != id || !state.isRecording.get()) return;
            stopOnWriteError();
        });
    };
}

void RecorderService::markMeaningfulAudio(const std::string& recordingID) {
    if (currentID_ != recordingID) return;
    lastMeaningfulAudioAt_ = runtime::clock().now();
    heardMeaningfulAudio_ = true;
}

bool RecorderService::finishStart(const std::shared_ptr<Session>& session, const StartOptions& options,
                                  const std::optional<std::string>& liveSessionID) {
    const WallTime now = runtime::clock().now();

    // The entry first: a recording the pending list does not hold would be a file nobody
    // uploads (a full disk refuses the list as it would refuse the audio).
    PendingRecording r;
    r.id = session->id;
    r.fileURL = session->mixer->outputFile();
    r.startedAt = now;
    r.status = Status::recording;
    r.attempts = 0;
    if (parts_.accountID) r.accountID = parts_.accountID();
    r.liveSessionID = liveSessionID;
    list_.push_back(r);
    if (!commitList()) {
        const std::string reason = saveFailure_.value_or("");
        list_.pop_back();
        state.pending.set(list_);
        closeSession(session);
        std::error_code ignored;
        fs::remove(r.fileURL, ignored);
        failStart(messages::kListNotSaved.str() + reason);
        return false;
    }
    if (!r.accountID) unownedThisRun_.insert(r.id);

    session_ = session;
    currentID_ = session->id;
    startedAt_ = now;
    isAutomaticRecording_ = options.automatic;
    autoStopping_ = false;
    rotatingAtLimit_ = false;
    heardMeaningfulAudio_ = false;
    lastMeaningfulAudioAt_ = now;
    if (parts_.speech) parts_.speech->reset();
    systemTapSilence_->reset();
    state.calendarMeetingTitle.set(options.calendarMeetingTitle);
    state.elapsed.set(0.0);
    state.lastError.set(std::nullopt);
    showMicrophoneFallback();
    state.isRecording.set(true);

    std::weak_ptr<int> alive = alive_;
    ticker_ = runtime::main().repeat(kTickSeconds, [this, alive] {
        if (!alive.expired()) tick();
    });
    starting_ = false;
    kLog.info("recording " + session->id + " started" + (session->systemRunning ? "" : " (microphone only)"));
    return true;
}

void RecorderService::showMicrophoneFallback() {
    const bool fellBack = chosenFellBack_ || parts_.microphone->fellBackToDefault();
    if (fellBack && !state.microphoneFellBack.get())
        kLog.info("the chosen microphone is not connected; recording from the system default");
    state.microphoneFellBack.set(fellBack);
}

void RecorderService::closeSession(const std::shared_ptr<Session>& session) {
    micQueue_->sync([&] {
        session->closed = true;
        parts_.microphone->stop();
        if (parts_.systemAudio && session->systemRunning) parts_.systemAudio->stop();
        session->mixer->finish();
    });
}

void RecorderService::failStart(const std::string& message) {
    kLog.error("recording did not start: " + message);
    state.lastError.set(message);
    starting_ = false;
}

// ---- ticker and automatic stops ----

std::optional<WallTime> RecorderService::silenceReference() const {
    if (parts_.speech && parts_.speech->usable()) {
        if (auto heard = parts_.speech->lastSpeech()) return heard;
        return startedAt_;
    }
    return lastMeaningfulAudioAt_;
}

void RecorderService::tick() {
    if (!state.isRecording.get() || !startedAt_) return;
    const WallTime now = runtime::clock().now();
    const double elapsed = secondsBetween(*startedAt_, now);
    state.elapsed.set(elapsed);
    if (autoStopping_) return;
    if (elapsed >= kMaximumSeconds) {
        rotatingAtLimit_ = true;
        return stopAutomatically(messages::kStoppedAfterFiveHours.str());
    }
    auto reference = silenceReference();
    if (!reference) return;
    if (secondsBetween(*reference, now) >= kSilenceLimitSeconds) stopAutomatically(messages::kStoppedAfterSilence.str());
}

void RecorderService::stopOnWriteError() {
    // Provisional: the stop decides between this and "nothing was saved".
    state.lastError.set(messages::kStoppedOnWriteError.str());
    stoppingOnWriteError_ = true;
    stop(false, false);
}

bool RecorderService::keepAfterWriteError(const fs::path& file) {
    std::error_code ec;
    if (file.empty() || !fs::exists(file, ec)) {
        kLog.error("the recording file was deleted; its entry is dropped");
        state.lastError.set(messages::kStoppedFileDeleted.str());
        return false;
    }
    if (isAdtsFile(file)) {
        const auto extent = media::trimAdtsFile(file, ec);
        if (!ec && extent.fileBytes == 0) {
            kLog.error("no audio reached the recording file; it is removed with its entry");
            fs::remove(file, ec);
            state.lastError.set(messages::kStoppedNothingSaved.str());
            return false;
        }
    }
    state.lastError.set(messages::kStoppedOnWriteError.str());
    return true;
}

void RecorderService::stopAutomatically(const std::string& message) {
    autoStopping_ = true;
    kLog.info("automatic stop: " + message);
    // The reason stays visible after the stop.
    state.lastError.set(message);
    stop(false, false);
}

// ---- stop ----

void RecorderService::stop(bool userInitiated, bool discard) {
    if (!state.isRecording.get() || !currentID_) return;
    if (!discard && discardAtStop) {
        bool heardSpeech = heardMeaningfulAudio_;
        if (parts_.speech && parts_.speech->usable()) {
            const auto heard = parts_.speech->lastSpeech();
            heardSpeech = heard && startedAt_ && *heard >= *startedAt_;
        }
        discard = discardAtStop(*currentID_, heardSpeech);
    }
    ticker_.cancel();
    ticker_ = {};
    const WallTime now = runtime::clock().now();
    const double duration = startedAt_ ? secondsBetween(*startedAt_, now) : state.elapsed.get();

    // Closing waits for the mixer to write what it holds, so the entry below only becomes
    // ready for upload once the file is complete.
    fs::path file;
    if (auto session = session_) {
        file = session->mixer->outputFile();
        closeSession(session);
        if (parts_.liveSegments && (!parts_.liveAdvisor.isActive || parts_.liveAdvisor.isActive())) {
            parts_.liveSegments->finish();
        }
    }
    session_.reset();
    const std::string id = *currentID_;
    RecordingStopOutcome outcome{id, true, duration};
    const bool stoppedOnWriteError = stoppingOnWriteError_;
    if (stoppingOnWriteError_) {
        stoppingOnWriteError_ = false;
        outcome.kept = keepAfterWriteError(file);
    }
    if (outcome.kept && isAdtsFile(file)) {
        // What the file holds, not how long the recording ran: a full disk keeps less.
        std::error_code ec;
        const auto extent = media::measureAdtsFile(file, ec);
        if (!ec && extent.sampleRate > 0) outcome.savedSeconds = extent.seconds();
    }
    lastStop_ = outcome;
    state.isRecording.set(false);
    state.microphoneFellBack.set(false);
    state.calendarMeetingTitle.set(std::nullopt);

    if (userInitiated && parts_.liveAdvisor.recordingEnded) parts_.liveAdvisor.recordingEnded(id);

    if (!outcome.kept) {
        remove(id);
    } else {
        // A full disk may refuse this save: the entry then stays "recording" in the file and
        // the next start settles it as ready (its audio is complete up to the last frame).
        update(id, [&](PendingRecording& r) {
            r.status = discard ? Status::discarded : Status::ready;
            r.finishedAt = now;
            r.discardedAt = discard ? std::optional<WallTime>(now) : std::nullopt;
        });
        if (saveFailure_) {
            // The audio is safe and the next start settles the entry, but the user hears of it,
            // unless the stop already says the disk refused the audio: that sentence tells what
            // happened to the recording, the list's failure is the same full disk.
            kLog.error("recording " + id + " stopped; the pending list could not be saved: " + *saveFailure_);
            if (!stoppedOnWriteError) state.lastError.set(messages::kListNotSaved.str() + *saveFailure_);
        }
    }
    kLog.info("recording " + id + (discard ? " discarded" : " stopped") + " after " + std::to_string(duration) + " s");
    currentID_.reset();
    startedAt_.reset();
    state.elapsed.set(0.0);
}

}  // namespace vell::recording
