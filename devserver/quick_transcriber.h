#pragma once
// The reference service's stand-in for speech recognition: it cannot hear words, so its
// answer is a deterministic description of the audio it received (length and size), sent
// the way the real service sends it: drafts first, then one final line.
#include <cstdint>
#include <string>
#include <vector>

namespace vell::devserver {

struct AdtsSummary {
    int64_t bytes = 0;
    int64_t frames = 0;
    double seconds = 0;  // 1024 samples per frame at each frame's own rate
};

// Walks the ADTS frames of the body; bytes that are not a frame end the walk.
AdtsSummary summarizeAdts(const std::string& body);

// The draft lines and the final text of one answer.
std::vector<std::string> draftTexts(const AdtsSummary& audio);
std::string finalText(const AdtsSummary& audio);

// One transcription at a time per account (a second one is refused with 409).
bool beginTranscription(const std::string& email);
void endTranscription(const std::string& email);

// A held stream waits after its first draft until the admin API releases it, so a test can
// see the draft arrive before the final line exists; unreleased after 10 s it ends with an
// error line instead of the final one.
// Take the ticket before sending the draft, so a release that comes at once is not missed.
void releaseHeldStreams();
uint64_t holdTicket();
bool waitUntilReleased(uint64_t ticket);

}  // namespace vell::devserver
