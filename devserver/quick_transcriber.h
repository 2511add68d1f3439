#pragma once
// The answer of a quick transcription, one NDJSON line at a time: the recogniser works
// through the audio a second at a time, each time the words heard so far change a "draft"
// line carries them, and the last line is the final text with language, `durationS` and
// `tookMs`. Faults of the admin API bend the stream the way a failing service would.
//
// One stream per request, used by the one server thread that sends the answer; the busy set
// and the hold gate below are shared and locked.
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vell::devserver {

class SpeechDecoder;

struct TranscriptLine {
    std::string json;     // without the newline
    bool cutAfter = false;  // drop the connection once it is sent, without ending the stream
};

class TranscriptStream {
public:
    // `mode` is the stream fault ("" for none): "error" (a stage "error" line after the first
    // draft), "cut" (the connection drops after the second draft), "draftsOnly" (no final
    // line), "malformed" (lines that are not JSON after the first draft), "slow" (`delayMs`
    // before every line but the first), "hold" (after the first draft, wait for the admin's
    // release; unreleased after 10 s, an error line ends it). Without drafts (nothing heard)
    // the fault applies where the final line would be.
    TranscriptStream(std::vector<int16_t> samples16k, std::string mode, int64_t delayMs,
                     std::chrono::steady_clock::time_point began);
    ~TranscriptStream();

    // The next line, or nothing when the answer is complete. Blocks while it recognises.
    std::optional<TranscriptLine> next();
    // Whether the line `next()` gave last was the last one.
    bool ended() const { return ended_ && queued_.empty(); }

    static constexpr double kDraftStepSeconds = 1.0;

private:
    std::optional<TranscriptLine> produce();
    std::optional<std::string> nextDraft();
    std::string finalLine();

    std::vector<int16_t> samples_;
    std::string mode_;
    int64_t delayMs_;
    std::chrono::steady_clock::time_point began_;
    std::unique_ptr<SpeechDecoder> decoder_;
    size_t fed_ = 0;
    std::string lastDraft_;
    int drafts_ = 0;
    int lines_ = 0;
    uint64_t ticket_;
    std::vector<std::string> queued_;  // lines due before anything else
    bool ended_ = false;
};

// One transcription at a time per account (a second one is refused with 409).
bool beginTranscription(const std::string& email);
void endTranscription(const std::string& email);

// A held stream waits after its first draft until the admin API releases it, so a test can
// see the draft arrive before the final line exists.
// Take the ticket before sending the draft, so a release that comes at once is not missed.
void releaseHeldStreams();
uint64_t holdTicket();
bool waitUntilReleased(uint64_t ticket);

}  // namespace vell::devserver
