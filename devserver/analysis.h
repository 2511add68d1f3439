#pragma once
// What the reference service makes of a conversation: a transcript with speakers, an
// extractive summary and weighted cues. A stand-in for the real service's models, made of
// plain rules over the recognised words and the loudness of the two sides of the call.
//
// Speakers are told apart by which side was louder: the client measures the loudness of the
// microphone and of the system audio separately before it mixes them (the file itself holds
// the mix), and sends those levels beside the audio. Speaker 1 is the microphone side (the
// user), speaker 2 the system side (the others on the call). Without levels every word
// belongs to speaker 1.
//
// Pure functions; thread-safe.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace vell::devserver {

struct TimedWord {
    std::string word;
    int64_t startMs = 0;
    int64_t endMs = 0;
};

// Loudness of each side in consecutive windows, in dBFS (RMS); -100 for digital silence.
struct SideLevels {
    int windowMs = 500;
    std::vector<int> microphone;
    std::vector<int> system;
    bool empty() const { return microphone.empty() && system.empty(); }
    // Appends other's windows starting at offsetMs (converted to this window length).
    void place(const SideLevels& other, int64_t offsetMs);
};

// {"windowMs", "microphone", "system"}; nothing when a field is missing or out of range.
std::optional<SideLevels> sideLevelsFromJson(const nlohmann::json& json);
nlohmann::json toJson(const SideLevels& levels);
// The compact header form "WINDOW_MS;m,m,...;s,s,..." of a live chunk.
std::optional<SideLevels> sideLevelsFromHeader(const std::string& text);

// RMS loudness of 16 kHz mono samples per window, in dBFS.
std::vector<int> loudnessWindows(const std::vector<int16_t>& samples16k, int windowMs);

struct AnalysisInput {
    std::vector<TimedWord> words;
    std::optional<SideLevels> sides;
    std::vector<int> monoLevels;  // from the decoded audio, when there are no side levels
    int monoWindowMs = 500;
    int64_t durationMs = 0;
    std::map<int, std::string> names;  // speaker index -> name the user gave
};

struct TranscriptSegment {
    int speaker = 1;
    int64_t startMs = 0;
    int64_t endMs = 0;
    std::string text;
    bool question = false;
};

struct Cue {
    std::string id;
    std::string kind;  // talkTime, monologue, questions, silence
    double weight = 0;  // 0...1: how much it matters (tile area)
    int64_t atMs = 0;   // where in the conversation
    std::string title;
    std::string text;
    nlohmann::json data = nlohmann::json::object();
};

struct SpeakerInfo {
    int index = 1;
    std::string side;  // microphone, system, unknown
    std::optional<std::string> name;
    int64_t talkMs = 0;
};

struct Analysis {
    std::vector<TranscriptSegment> transcript;
    std::vector<SpeakerInfo> speakers;
    std::vector<Cue> cues;
    std::string summary;  // Markdown; empty when nothing was recognised
};

inline constexpr int kActiveDb = -45;  // a side at least this loud is taking part
inline constexpr int64_t kLongSilenceMs = 10'000;
inline constexpr int64_t kMonologueMs = 60'000;
inline constexpr int64_t kSegmentGapMs = 1'000;

Analysis analyze(const AnalysisInput& input);

nlohmann::json toJson(const TranscriptSegment& segment);
nlohmann::json toJson(const Cue& cue);
nlohmann::json toJson(const SpeakerInfo& speaker);

// The summary and transcript as one Markdown page (what a share link shows).
std::string sharePage(const Analysis& analysis, const std::string& heading);

}  // namespace vell::devserver
