#include "devserver/quick_transcriber.h"

#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

#include <nlohmann/json.hpp>

#include "devserver/speech_decoder.h"

namespace vell::devserver {

using nlohmann::json;

namespace {
std::mutex busyMutex;
std::set<std::string> busy;

std::mutex gateMutex;
std::condition_variable gate;
uint64_t releases = 0;

TranscriptLine errorLine(const char* code) { return {json{{"stage", "error"}, {"error", code}}.dump()}; }
}  // namespace

TranscriptStream::TranscriptStream(std::vector<int16_t> samples16k, std::string mode, int64_t delayMs,
                                   std::chrono::steady_clock::time_point began)
    : samples_(std::move(samples16k)),
      mode_(std::move(mode)),
      delayMs_(delayMs),
      began_(began),
      decoder_(std::make_unique<SpeechDecoder>()),
      ticket_(holdTicket()) {}

TranscriptStream::~TranscriptStream() = default;

std::optional<TranscriptLine> TranscriptStream::next() {
    if (ended_) return std::nullopt;
    if (lines_ > 0 && mode_ == "slow" && delayMs_ > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delayMs_));
    auto line = produce();
    if (line) lines_ += 1;
    return line;
}

std::optional<std::string> TranscriptStream::nextDraft() {
    const size_t step = static_cast<size_t>(kDraftStepSeconds * SpeechDecoder::kRate);
    while (fed_ < samples_.size()) {
        const size_t n = std::min(step, samples_.size() - fed_);
        decoder_->feed(samples_.data() + fed_, n);
        fed_ += n;
        std::string words = decoder_->hypothesis();
        if (!words.empty() && words != lastDraft_) {
            lastDraft_ = words;
            return words;
        }
    }
    return std::nullopt;
}

std::optional<TranscriptLine> TranscriptStream::produce() {
    if (!queued_.empty()) {
        TranscriptLine line{queued_.front()};
        queued_.erase(queued_.begin());
        return line;
    }
    if (drafts_ == 1 && mode_ == "hold" && ticket_ != UINT64_MAX) {
        const bool released = waitUntilReleased(ticket_);
        ticket_ = UINT64_MAX;  // one hold per stream
        if (!released) {
            ended_ = true;
            return errorLine("not_released");
        }
    }
    if (drafts_ == 1 && mode_ == "error") {
        ended_ = true;
        return errorLine("transcription_failed");
    }
    if (auto words = nextDraft()) {
        drafts_ += 1;
        TranscriptLine line{json{{"stage", "draft"}, {"text", *words}}.dump()};
        if (drafts_ == 1 && mode_ == "malformed") queued_ = {"not json at all", "{\"stage\": \"draft\", \"text\": "};
        if (drafts_ == 2 && mode_ == "cut") {
            line.cutAfter = true;
            ended_ = true;
        }
        return line;
    }
    // All audio is heard; fewer drafts than a fault waits for put the fault here.
    ended_ = true;
    if (mode_ == "error") return errorLine("transcription_failed");
    if (mode_ == "cut") return TranscriptLine{"", true};
    if (mode_ == "draftsOnly") return std::nullopt;
    if (mode_ == "hold" && ticket_ != UINT64_MAX && !waitUntilReleased(ticket_)) return errorLine("not_released");
    return TranscriptLine{finalLine()};
}

std::string TranscriptStream::finalLine() {
    const auto heard = decoder_->finish();
    const auto took = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began_).count();
    return json{{"stage", "final"},
                {"text", heard.text},
                {"language", "en"},
                {"durationS", static_cast<double>(samples_.size()) / SpeechDecoder::kRate},
                {"tookMs", took}}
        .dump();
}

bool beginTranscription(const std::string& email) {
    std::lock_guard lock(busyMutex);
    return busy.insert(email).second;
}

void endTranscription(const std::string& email) {
    std::lock_guard lock(busyMutex);
    busy.erase(email);
}

void releaseHeldStreams() {
    std::lock_guard lock(gateMutex);
    releases += 1;
    gate.notify_all();
}

uint64_t holdTicket() {
    std::lock_guard lock(gateMutex);
    return releases;
}

bool waitUntilReleased(uint64_t ticket) {
    std::unique_lock lock(gateMutex);
    return gate.wait_for(lock, std::chrono::seconds(10), [&] { return releases != ticket; });
}

}  // namespace vell::devserver
