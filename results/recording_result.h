#pragma once
// What the service made of one recording, as the front ends show it: the processing state,
// the summary (Markdown), the transcript with speakers and times, and the cues. The JSON
// form is the service's own detail, so a copy kept on disk reads like a fresh answer.
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "live/live_api.h"

namespace vell::results {

struct Speaker {
    int index = 1;
    std::string side;  // microphone (the user), system (the others on a call), unknown
    std::optional<std::string> name;
    long long talkMs = 0;
    bool operator==(const Speaker&) const = default;
};

struct TranscriptLine {
    int speaker = 1;
    long long startMs = 0;
    long long endMs = 0;
    std::string text;
    bool operator==(const TranscriptLine&) const = default;
};

struct RecordingResult {
    std::string id;  // the service's recording id
    std::string filename;
    long long createdAt = 0;  // ms since 1970
    std::optional<long long> captureStartedAt;
    long long durationMs = 0;
    std::string state = "queued";  // queued, processing, processed, failed
    std::optional<std::string> error;
    std::string summary;  // Markdown; empty when nothing was recognised
    std::vector<TranscriptLine> transcript;
    std::vector<Speaker> speakers;
    std::vector<live::Tile> cues;
    std::optional<std::string> shareUrl;
    // A processed result that lacked one of summary, transcript, speakers or cues.
    bool incomplete = false;
    bool operator==(const RecordingResult&) const = default;

    bool finished() const { return state == "processed" || state == "failed"; }
    // "Speaker 2" / the name the user gave.
    std::string speakerName(int index) const;
    // The state as one sentence in the interface language.
    std::string stateSentence() const;
    // What a person finds the conversation by: the summary's first line as plain text (no
    // Markdown marks), cut to `limit` characters; empty before there is a summary.
    std::string firstSummaryLine(size_t limit = 80) const;
};

// Nothing when "id" or "state" is missing; a processed result missing other fields comes
// back marked incomplete, with what was there.
std::optional<RecordingResult> decodeResult(const nlohmann::json& json);
nlohmann::json encodeResult(const RecordingResult& result);

// "mm:ss" (or "h:mm:ss") of a time in the conversation.
std::string conversationClock(long long ms);

}  // namespace vell::results
