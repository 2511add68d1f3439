#pragma once
// An outside agent's request for buffered audio and this computer's answer to it, as the
// host keeps it, carries it over its control interface (JSON) and tells it to the user. The
// user must learn what audio left the computer, so an upload names the span of the chunks
// actually sent (whole chunks: a little more than asked). Values only; any thread.
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "base/clock.h"
#include "base/language.h"

namespace vell::insurance {

struct AgentRequest {
    std::string id;
    double fromMs = 0;  // milliseconds since 1970
    double toMs = 0;
    bool operator==(const AgentRequest&) const = default;
};

// What an upload sent: from the first chunk's start to the last one's end, and the audio's
// length (less than the span when the buffer had gaps).
struct SentAudio {
    WallTime from, to;
    double seconds = 0;
    bool operator==(const SentAudio&) const = default;
};

// One request answered in this run, as reported (or as it would have been, when the report
// did not reach the service: the service then asks again).
struct AgentAnswer {
    AgentRequest request;
    std::string status;  // "uploaded", "failed", "empty"
    std::optional<std::string> recordingID;
    std::optional<std::string> error;
    bool reported = false;
    WallTime answeredAt;
    std::optional<SentAudio> sent;  // with "uploaded"
    bool operator==(const AgentAnswer&) const = default;
};

// The "request" of a poll's answer; nothing when absent, null or not a request.
std::optional<AgentRequest> decodeAgentRequest(const nlohmann::json& answer);

// {"id","fromMs","toMs","status","recordingId"?,"error"?,"sentFromMs"?,"sentToMs"?,
//  "sentSeconds"?,"reported","answeredAtMs"}
nlohmann::json answerJson(const AgentAnswer& answer);
// Missing or mistyped fields keep their defaults.
AgentAnswer answerFromJson(const nlohmann::json& json);

// "45 seconds", "1 minute", "2 minutes": seconds under a minute, whole minutes above.
std::string spokenDuration(double seconds, Language language);
// The desktop notification of an upload: "Vell sent 2 minutes of audio (10:02-10:04) to
// your assistant", in local 24-hour time.
std::string sentNotice(const AgentAnswer& answer, Language language);
// One line of a status list: "Sent to your assistant: 10:02-10:04 (2 minutes), at 10:05";
// requests that sent nothing say so.
std::string answerLine(const AgentAnswer& answer, Language language);

}  // namespace vell::insurance
