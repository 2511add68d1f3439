#include "results/recording_result.h"

#include <cstdio>
#include <sstream>

#include "results/results_messages.h"
#include "service/api_client.h"

namespace vell::results {

using nlohmann::json;
using service::integerField;
using service::stringField;

std::string RecordingResult::speakerName(int index) const {
    for (const auto& s : speakers)
        if (s.index == index && s.name && !s.name->empty()) return *s.name;
    return messages::kSpeaker.str() + std::to_string(index);
}

std::string RecordingResult::firstSummaryLine(size_t limit) const {
    // A heading ("## Key points") says little about this conversation: the first line of
    // text under it does; the heading only when there is nothing else.
    std::string heading, text;
    std::istringstream lines(summary);
    for (std::string line; text.empty() && std::getline(lines, line);) {
        const bool isHeading = line.find_first_not_of(" \t") != std::string::npos && line[line.find_first_not_of(" \t")] == '#';
        std::string plain;
        for (char c : line) {
            if (c != '*' && c != '_' && c != '`') plain += c;
        }
        const auto start = plain.find_first_not_of(" \t#->");
        if (start == std::string::npos) continue;
        plain = plain.substr(start);
        while (!plain.empty() && (plain.back() == ' ' || plain.back() == '\r')) plain.pop_back();
        if (isHeading) {
            if (heading.empty()) heading = plain;
        } else {
            text = plain;
        }
    }
    std::string chosen = text.empty() ? heading : text;
    // Cut on a character boundary, never inside a UTF-8 sequence.
    size_t chars = 0, at = 0;
    for (; at < chosen.size(); ++at) {
        if ((static_cast<unsigned char>(chosen[at]) & 0xC0) != 0x80 && chars++ == limit) break;
    }
    return at < chosen.size() ? chosen.substr(0, at) + "\u2026" : chosen;
}

std::string RecordingResult::stateSentence() const {
    if (state == "processed") return messages::kProcessed.str();
    if (state == "failed") return messages::kProcessingFailed.str();
    if (state == "processing") return messages::kProcessing.str();
    return messages::kQueued.str();
}

std::string conversationClock(long long ms) {
    const long long s = std::max(0LL, ms) / 1000;
    char text[24];
    if (s >= 3600) {
        std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", s / 3600, s / 60 % 60, s % 60);
    } else {
        std::snprintf(text, sizeof text, "%02lld:%02lld", s / 60, s % 60);
    }
    return text;
}

std::optional<RecordingResult> decodeResult(const json& j) {
    auto id = stringField(j, "id");
    auto state = stringField(j, "state");
    if (!id || !state) return std::nullopt;
    RecordingResult r;
    r.id = *id;
    r.state = *state;
    r.filename = stringField(j, "filename").value_or("");
    r.createdAt = integerField(j, "createdAt").value_or(0);
    r.captureStartedAt = integerField(j, "captureStartedAt");
    r.durationMs = integerField(j, "durationMs").value_or(0);
    r.error = stringField(j, "error");
    r.shareUrl = stringField(j, "shareUrl");
    if (r.state != "processed") return r;
    if (auto flag = j.find("incomplete"); flag != j.end() && flag->is_boolean() && flag->get<bool>()) r.incomplete = true;

    auto summary = stringField(j, "summary");
    if (!summary) r.incomplete = true;
    r.summary = summary.value_or("");
    auto list = [&](const char* key) -> const json* {
        auto it = j.find(key);
        if (it == j.end() || !it->is_array()) {
            r.incomplete = true;
            return nullptr;
        }
        return &*it;
    };
    if (const json* lines = list("transcript")) {
        for (const auto& l : *lines) {
            auto text = stringField(l, "text");
            if (!text) {
                r.incomplete = true;
                continue;
            }
            r.transcript.push_back({static_cast<int>(integerField(l, "speaker").value_or(1)), integerField(l, "startMs").value_or(0),
                                    integerField(l, "endMs").value_or(0), *text});
        }
    }
    if (const json* speakers = list("speakers")) {
        for (const auto& s : *speakers) {
            auto index = integerField(s, "index");
            if (!index) {
                r.incomplete = true;
                continue;
            }
            r.speakers.push_back({static_cast<int>(*index), stringField(s, "side").value_or("unknown"), stringField(s, "name"),
                                  integerField(s, "talkMs").value_or(0)});
        }
    }
    if (const json* cues = list("cues")) {
        auto decoded = live::decodeTiles(json{{"tiles", *cues}});
        if (decoded) {
            r.cues = std::move(*decoded);
        } else {
            r.incomplete = true;
        }
    }
    return r;
}

json encodeResult(const RecordingResult& r) {
    json j = {{"id", r.id},
              {"filename", r.filename},
              {"createdAt", r.createdAt},
              {"captureStartedAt", r.captureStartedAt ? json(*r.captureStartedAt) : json(nullptr)},
              {"durationMs", r.durationMs},
              {"state", r.state},
              {"error", r.error ? json(*r.error) : json(nullptr)},
              {"shareUrl", r.shareUrl ? json(*r.shareUrl) : json(nullptr)}};
    if (r.state != "processed") return j;
    // An incomplete result is kept as it came: the missing part stays missing.
    json transcript = json::array(), speakers = json::array(), cues = json::array();
    for (const auto& l : r.transcript)
        transcript.push_back({{"speaker", l.speaker}, {"startMs", l.startMs}, {"endMs", l.endMs}, {"text", l.text}});
    for (const auto& s : r.speakers)
        speakers.push_back({{"index", s.index}, {"side", s.side}, {"name", s.name ? json(*s.name) : json(nullptr)}, {"talkMs", s.talkMs}});
    for (const auto& c : r.cues) cues.push_back(live::toJson(c));
    j["summary"] = r.summary;
    j["transcript"] = transcript;
    j["speakers"] = speakers;
    j["cues"] = cues;
    if (r.incomplete) j["incomplete"] = true;
    return j;
}

}  // namespace vell::results

#include "results/running_results.h"

namespace vell::results {
RunningResults& runningResults() {
    static RunningResults running;
    return running;
}
}  // namespace vell::results
