#include "insurance/insurance_recovery_controller.h"

#include <algorithm>

#include "base/private_folder.h"
#include "base/runtime.h"
#include "base/uuid.h"
#include "insurance/insurance_chunk_writer.h"
#include "insurance/insurance_messages.h"
#include "insurance/insurance_recorder.h"
#include "insurance/quick_transcription.h"
#include "service/api_client.h"

namespace vell::insurance {

namespace {
// In Vell's private temporary folder; without one the path is empty and writing it fails.
std::filesystem::path temporaryFile(const std::string& prefix) {
    auto folder = files::temporaryFolder();
    return folder ? *folder / (prefix + newUUIDString() + ".aac") : std::filesystem::path();
}

std::filesystem::path uploadFile() { return temporaryFile("insurance-text-"); }

std::filesystem::path previewFileName() { return temporaryFile("insurance-preview-"); }

void removeFile(const std::filesystem::path& file) {
    std::error_code ignored;
    std::filesystem::remove(file, ignored);
}

bool blank(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isspace(c); });
}
}  // namespace

RecoveryDependencies recoveryDependencies(InsuranceRecorder& recorder, const service::APIClient& client) {
    RecoveryDependencies d;
    d.chunks = [&recorder] { return recorder.store().chunks(); };
    d.seal = [&recorder] { recorder.writer().seal(); };
    d.concatenate = [&recorder](const std::vector<InsuranceChunk>& chunks, const std::filesystem::path& to) {
        return recorder.store().concatenate(chunks, to, InsuranceBufferStore::Creation::fresh);
    };
    d.transcribe = [&client](const std::filesystem::path& file, std::function<void(std::string)> onDraft,
                             std::function<void(Expected<std::string, service::APIError>)> done) {
        auto drafts = std::make_shared<std::function<void(std::string)>>(std::move(onDraft));
        client.async<std::string>(
            [&client, file, drafts]() -> Expected<std::string, service::APIError> {
                auto result = quickTranscribe(client, file, [drafts](const std::string& text) {
                    runtime::main().post([drafts, text] { (*drafts)(text); });
                });
                if (!result) return unexpected(result.error());
                return result->text;
            },
            std::move(done));
    };
    d.now = [] { return runtime::clock().now(); };
    d.wait = [](double seconds, std::function<void()> done) { runtime::main().postAfter(seconds, std::move(done)); };
    d.signedIn = [] { return false; };
    d.accountID = [] { return std::optional<std::string>(); };
    d.copy = [](const std::string&) { return false; };
    d.handleError = [](const service::APIError&) {};
    d.makePlayer = previewPlayerFactory();
    return d;
}

std::optional<Selection> selectionFor(Range range, int customMinutes, WallTime now, const std::vector<InsuranceChunk>& chunks) {
    auto back = [&](double minutes) {
        const auto span = std::chrono::duration_cast<WallTime::duration>(std::chrono::duration<double>(minutes * 60 + kChunkSeconds));
        return Selection{now - span, now};
    };
    switch (range) {
        case Range::lastMinute:
            return back(1);
        case Range::lastFive:
            return back(5);
        case Range::custom:
            return back(std::clamp<double>(customMinutes, kCustomMinutesMin, kCustomMinutesMax));
        case Range::all:
            if (chunks.empty()) return std::nullopt;
            return Selection{chunks.front().start, std::max(now, chunks.back().start)};
    }
    return std::nullopt;
}

InsuranceRecoveryController::InsuranceRecoveryController(RecoveryDependencies dependencies) : deps_(std::move(dependencies)) {}

InsuranceRecoveryController::~InsuranceRecoveryController() { stop(); }

void InsuranceRecoveryController::choose(Range r, int minutes) {
    range.set(r);
    customMinutes.set(minutes);
    refresh();
    reset();
}

void InsuranceRecoveryController::refresh() {
    chunks.set(deps_.chunks());
    selection.set(selectionFor(range.get(), customMinutes.get(), deps_.now(), chunks.get()));
}

std::vector<InsuranceChunk> InsuranceRecoveryController::selectedChunks() const {
    std::vector<InsuranceChunk> out;
    auto span = selection.get();
    if (!span) return out;
    for (const auto& chunk : chunks.get()) {
        if (chunk.start >= span->from && chunk.start <= span->to) out.push_back(chunk);
    }
    return out;
}

std::string InsuranceRecoveryController::displayText() const {
    const auto kind = phase.get().kind;
    const std::string shown = text.get();
    if ((kind == Phase::Kind::transcribing || kind == Phase::Kind::improving) && !shown.empty()) {
        return messages::kImprovingPrefix.str() + shown;
    }
    return shown;
}

void InsuranceRecoveryController::reset() {
    ++run_;
    activeKey_.reset();
    phase.set(Phase{});
    text.set("");
    transcript.set(std::nullopt);
    copyConfirmation.set("");
    if (selectedChunks().empty()) return;
    std::weak_ptr<int> weak = alive_;
    const int run = run_;
    runtime::main().post([this, weak, run] {
        if (!weak.expired() && current(run)) request(run);
    });
}

void InsuranceRecoveryController::request(int run) {
    deps_.seal();
    // Sealing renamed the open chunk: read the listing again.
    chunks.set(deps_.chunks());
    const auto selected = selectedChunks();
    const auto span = selection.get();
    if (selected.empty() || !span) return;
    Key key;
    for (const auto& chunk : selected) key.push_back(chunk.url);

    const auto account = deps_.accountID();
    if (owner_ != account) {
        cache_.clear();
        owner_ = account;
    }
    if (auto hit = cache_.find(key); hit != cache_.end()) return finish(hit->second);
    if (!deps_.signedIn()) return phase.set(Phase{Phase::Kind::failed, messages::kSignInToTranscribe.str()});

    activeKey_ = key;
    phase.set(Phase{Phase::Kind::transcribing, ""});
    const auto file = uploadFile();
    if (auto written = deps_.concatenate(selected, file); !written) {
        removeFile(file);
        activeKey_.reset();
        return phase.set(Phase{Phase::Kind::failed, written.error()});
    }
    attempt(run, key, file, *span, 0);
}

void InsuranceRecoveryController::attempt(int run, Key key, std::filesystem::path file, Selection span, int busyAnswers) {
    std::weak_ptr<int> weak = alive_;
    auto onDraft = [this, weak, run](std::string draft) {
        if (weak.expired() || !current(run)) return;
        text.set(std::move(draft));
        if (phase.get().kind == Phase::Kind::transcribing) phase.set(Phase{Phase::Kind::improving, ""});
    };
    auto done = [this, weak, run, key, file, span, busyAnswers](Expected<std::string, service::APIError> result) {
        if (weak.expired() || !current(run)) return removeFile(file);
        if (result) {
            removeFile(file);
            Transcript finished{*result, span.from, span.to};
            cache_[key] = finished;
            return finish(finished);
        }
        const auto& error = result.error();
        const bool busy = error.kind == service::APIError::Kind::http && error.status == 409 &&
                          error.code == "transcription_in_progress";
        if (busy && busyAnswers < kBusyRetries) {
            deps_.wait(static_cast<double>(1 << busyAnswers), [this, weak, run, key, file, span, busyAnswers] {
                if (weak.expired() || !current(run)) return removeFile(file);
                attempt(run, key, file, span, busyAnswers + 1);
            });
            return;
        }
        removeFile(file);
        activeKey_.reset();
        deps_.handleError(error);
        const std::string message = error.kind == service::APIError::Kind::transport ? messages::kNoConnection.str() : error.description();
        phase.set(Phase{Phase::Kind::failed, message});
    };
    deps_.transcribe(file, std::move(onDraft), std::move(done));
}

void InsuranceRecoveryController::finish(const Transcript& result) {
    transcript.set(result);
    text.set(result.text);
    phase.set(Phase{});
    activeKey_.reset();
    if (blank(result.text)) {
        copyConfirmation.set(messages::kNoSpeechFound.str());
    } else if (copyConfirmation.get() == messages::kCopied.str()) {
        deps_.copy(result.text);
        copyConfirmation.set(messages::kCopiedImproved.str());
    }
}

void InsuranceRecoveryController::copy() {
    const bool copied = deps_.copy(text.get());
    copyConfirmation.set(copied ? messages::kCopied.str() : messages::kCouldNotCopy.str());
}

void InsuranceRecoveryController::play() {
    if (isPlaying.get()) return;
    std::weak_ptr<int> weak = alive_;
    auto startTimer = [this, weak] {
        playTimer_.cancel();
        playTimer_ = runtime::main().repeat(kPlayTimerSeconds, [this, weak] {
            if (!weak.expired()) playTick();
        });
    };
    if (player_) {  // paused: go on
        player_->resume();
        isPlaying.set(true);
        return startTimer();
    }
    const auto selected = selectedChunks();
    auto failed = [this] {
        stop();
        phase.set(Phase{Phase::Kind::failed, messages::kCouldNotPlay.str()});
    };
    if (selected.empty()) return failed();
    previewURL_ = previewFileName();
    if (!deps_.concatenate(selected, *previewURL_)) return failed();
    player_ = deps_.makePlayer ? deps_.makePlayer() : nullptr;
    if (!player_ || !player_->play(*previewURL_)) return failed();
    isPlaying.set(true);
    position.set(0);
    startTimer();
}

void InsuranceRecoveryController::pause() {
    if (!player_ || !isPlaying.get()) return;
    player_->pause();
    playTimer_.cancel();
    position.set(player_->currentTime());
    isPlaying.set(false);
}

void InsuranceRecoveryController::playTick() {
    if (!player_) return stop();
    if (player_->isPlaying()) return position.set(player_->currentTime());
    // Found stopped: the end of the file.
    position.set(0);
    stop();
}

void InsuranceRecoveryController::stop() {
    playTimer_.cancel();
    if (player_) player_->stop();
    player_.reset();
    if (previewURL_) removeFile(*previewURL_);
    previewURL_.reset();
    if (isPlaying.get()) isPlaying.set(false);
    if (position.get() != 0) position.set(0);
}

}  // namespace vell::insurance
