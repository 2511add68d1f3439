#include "devserver/analysis.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <set>
#include <sstream>

namespace vell::devserver {

using nlohmann::json;

namespace {

constexpr int kSilentDb = -100;
// Short pauses inside one speaker's turn do not end a monologue.
constexpr int64_t kMonologueGapMs = 2'000;

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

bool parseIntList(const std::string& text, std::vector<int>& out) {
    out.clear();
    if (text.empty()) return true;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t comma = text.find(',', pos);
        if (comma == std::string::npos) comma = text.size();
        int value = 0;
        auto [end, ec] = std::from_chars(text.data() + pos, text.data() + comma, value);
        if (ec != std::errc() || end != text.data() + comma || value < kSilentDb || value > 0) return false;
        out.push_back(value);
        pos = comma + 1;
    }
    return true;
}

std::string clock(int64_t ms) {
    char text[16];
    const int64_t s = ms / 1000;
    std::snprintf(text, sizeof text, "%02lld:%02lld", static_cast<long long>(s / 60), static_cast<long long>(s % 60));
    return text;
}

std::string speakerName(const std::map<int, std::string>& names, int index) {
    auto it = names.find(index);
    if (it != names.end() && !it->second.empty()) return it->second;
    return "Speaker " + std::to_string(index);
}

// Which side carries each window: 0 nobody, 1 microphone, 2 system.
struct Activity {
    int windowMs = 500;
    std::vector<int> owner;
    int speakers = 1;
};

Activity activityOf(const AnalysisInput& input) {
    Activity a;
    if (input.sides && !input.sides->empty()) {
        const auto& s = *input.sides;
        a.windowMs = s.windowMs;
        a.speakers = 2;
        const size_t n = std::max(s.microphone.size(), s.system.size());
        a.owner.resize(n, 0);
        for (size_t i = 0; i < n; ++i) {
            const int m = i < s.microphone.size() ? s.microphone[i] : kSilentDb;
            const int y = i < s.system.size() ? s.system[i] : kSilentDb;
            if (std::max(m, y) < kActiveDb) continue;
            a.owner[i] = m >= y ? 1 : 2;
        }
        return a;
    }
    a.windowMs = input.monoWindowMs;
    a.owner.resize(input.monoLevels.size(), 0);
    for (size_t i = 0; i < input.monoLevels.size(); ++i) a.owner[i] = input.monoLevels[i] >= kActiveDb ? 1 : 0;
    return a;
}

// The side that was louder around a moment; speaker 1 without levels.
int speakerAt(const AnalysisInput& input, int64_t ms) {
    if (!input.sides || input.sides->empty()) return 1;
    const auto& s = *input.sides;
    const auto i = static_cast<size_t>(std::max<int64_t>(0, ms / std::max(1, s.windowMs)));
    const int m = i < s.microphone.size() ? s.microphone[i] : kSilentDb;
    const int y = i < s.system.size() ? s.system[i] : kSilentDb;
    return m >= y ? 1 : 2;
}

const std::set<std::string>& questionWords() {
    static const std::set<std::string> words = {
        "what", "why", "how", "when", "where", "who", "whom", "which", "whose", "can", "could", "would", "should",
        "do", "does", "did", "is", "are", "was", "were", "will", "shall", "have", "has", "may",
        "qué", "que", "por", "cómo", "como", "cuándo", "cuando", "dónde", "donde", "quién", "quien", "cuál", "cual",
        "cuánto", "cuanto", "podés", "podrías", "tenés", "sabés"};
    return words;
}

const std::set<std::string>& stopWords() {
    static const std::set<std::string> words = {
        "the", "a", "an", "and", "or", "but", "of", "to", "in", "on", "at", "for", "with", "is", "are", "was", "were",
        "it", "this", "that", "i", "you", "we", "they", "he", "she", "be", "been", "so", "do", "not", "no", "yes",
        "de", "la", "el", "los", "las", "y", "o", "en", "un", "una", "que", "es", "por", "con", "para", "se", "lo"};
    return words;
}

std::vector<TranscriptSegment> segmentsOf(const AnalysisInput& input) {
    std::vector<TranscriptSegment> out;
    for (const auto& w : input.words) {
        if (w.word.empty()) continue;
        const int speaker = speakerAt(input, (w.startMs + w.endMs) / 2);
        if (out.empty() || out.back().speaker != speaker || w.startMs - out.back().endMs > kSegmentGapMs) {
            out.push_back({speaker, w.startMs, w.endMs, w.word, false});
        } else {
            out.back().text += " " + w.word;
            out.back().endMs = std::max(out.back().endMs, w.endMs);
        }
    }
    for (auto& segment : out) {
        const std::string first = lower(segment.text.substr(0, segment.text.find(' ')));
        segment.question = questionWords().count(first) > 0 || segment.text.back() == '?';
    }
    return out;
}

std::string summaryOf(const std::vector<TranscriptSegment>& segments, const std::map<int, std::string>& names) {
    std::map<std::string, int> frequency;
    auto tokens = [](const std::string& text) {
        std::vector<std::string> list;
        std::istringstream in(text);
        for (std::string t; in >> t;) list.push_back(lower(t));
        return list;
    };
    for (const auto& s : segments)
        for (const auto& t : tokens(s.text))
            if (!stopWords().count(t)) frequency[t]++;
    struct Scored {
        size_t index;
        double score;
    };
    std::vector<Scored> scored;
    for (size_t i = 0; i < segments.size(); ++i) {
        const auto list = tokens(segments[i].text);
        if (list.size() < 3) continue;
        double sum = 0;
        for (const auto& t : list)
            if (!stopWords().count(t)) sum += frequency[t];
        scored.push_back({i, sum / std::sqrt(static_cast<double>(list.size()))});
    }
    if (scored.empty()) {
        // Only short turns: the longest one stands for the conversation.
        if (segments.empty()) return {};
        size_t longest = 0;
        for (size_t i = 1; i < segments.size(); ++i)
            if (segments[i].text.size() > segments[longest].text.size()) longest = i;
        scored.push_back({longest, 1});
    }
    std::stable_sort(scored.begin(), scored.end(), [](const Scored& a, const Scored& b) { return a.score > b.score; });
    const size_t keep = std::clamp<size_t>(scored.size() / 4, 1, 5);
    scored.resize(keep);
    std::sort(scored.begin(), scored.end(), [](const Scored& a, const Scored& b) { return a.index < b.index; });
    std::string md = "### Key points\n\n";
    for (const auto& s : scored) {
        const auto& segment = segments[s.index];
        md += "- **" + speakerName(names, segment.speaker) + "** (" + clock(segment.startMs) + "): " + segment.text + "\n";
    }
    return md;
}

}  // namespace

void SideLevels::place(const SideLevels& other, int64_t offsetMs) {
    if (windowMs <= 0 || other.windowMs <= 0) return;
    auto put = [&](std::vector<int>& into, const std::vector<int>& from) {
        for (size_t i = 0; i < from.size(); ++i) {
            const int64_t at = offsetMs + static_cast<int64_t>(i) * other.windowMs;
            const auto slot = static_cast<size_t>(at / windowMs);
            if (into.size() <= slot) into.resize(slot + 1, kSilentDb);
            into[slot] = std::max(into[slot], from[i]);
        }
    };
    put(microphone, other.microphone);
    put(system, other.system);
    const size_t n = std::max(microphone.size(), system.size());
    microphone.resize(n, kSilentDb);
    system.resize(n, kSilentDb);
}

std::optional<SideLevels> sideLevelsFromJson(const json& j) {
    if (!j.is_object()) return std::nullopt;
    try {
        SideLevels s;
        s.windowMs = j.at("windowMs").get<int>();
        s.microphone = j.at("microphone").get<std::vector<int>>();
        s.system = j.at("system").get<std::vector<int>>();
        if (s.windowMs < 10 || s.windowMs > 60'000) return std::nullopt;
        for (const auto* list : {&s.microphone, &s.system})
            for (int v : *list)
                if (v < kSilentDb || v > 0) return std::nullopt;
        return s;
    } catch (const json::exception&) {
        return std::nullopt;
    }
}

json toJson(const SideLevels& s) { return {{"windowMs", s.windowMs}, {"microphone", s.microphone}, {"system", s.system}}; }

std::optional<SideLevels> sideLevelsFromHeader(const std::string& text) {
    const size_t a = text.find(';');
    const size_t b = a == std::string::npos ? a : text.find(';', a + 1);
    if (b == std::string::npos) return std::nullopt;
    SideLevels s;
    auto [end, ec] = std::from_chars(text.data(), text.data() + a, s.windowMs);
    if (ec != std::errc() || end != text.data() + a || s.windowMs < 10 || s.windowMs > 60'000) return std::nullopt;
    if (!parseIntList(text.substr(a + 1, b - a - 1), s.microphone) || !parseIntList(text.substr(b + 1), s.system)) {
        return std::nullopt;
    }
    return s;
}

std::vector<int> loudnessWindows(const std::vector<int16_t>& samples, int windowMs) {
    std::vector<int> out;
    const size_t n = static_cast<size_t>(16 * windowMs);
    for (size_t start = 0; n > 0 && start < samples.size(); start += n) {
        const size_t end = std::min(samples.size(), start + n);
        double sum = 0;
        for (size_t i = start; i < end; ++i) sum += double(samples[i]) * samples[i];
        const double rms = std::sqrt(sum / double(end - start)) / 32768.0;
        out.push_back(rms <= 0 ? kSilentDb : std::max(kSilentDb, static_cast<int>(std::lround(20 * std::log10(rms)))));
    }
    return out;
}

Analysis analyze(const AnalysisInput& input) {
    Analysis result;
    result.transcript = segmentsOf(input);
    const Activity activity = activityOf(input);
    const int64_t w = activity.windowMs;

    std::map<int, int64_t> talk;
    for (int owner : activity.owner)
        if (owner) talk[owner] += w;
    for (int i = 1; i <= activity.speakers; ++i) {
        SpeakerInfo info;
        info.index = i;
        info.side = activity.speakers == 1 ? "unknown" : (i == 1 ? "microphone" : "system");
        if (auto it = input.names.find(i); it != input.names.end()) info.name = it->second;
        info.talkMs = talk[i];
        result.speakers.push_back(info);
    }

    // Talk time.
    int64_t total = 0;
    for (const auto& [_, ms] : talk) total += ms;
    if (total > 0) {
        Cue cue;
        cue.id = "talk-time";
        cue.kind = "talkTime";
        json shares = json::object();
        std::string text;
        double mine = 0;
        for (const auto& s : result.speakers) {
            const double share = double(s.talkMs) / double(total);
            if (s.index == 1) mine = share;
            shares[std::to_string(s.index)] = std::lround(share * 100);
            if (!text.empty()) text += ", ";
            text += speakerName(input.names, s.index) + " " + std::to_string(std::lround(share * 100)) + "%";
        }
        cue.title = "Talk time";
        cue.text = "Share of the talking: " + text + ".";
        cue.data = {{"shares", shares}, {"talkMs", total}};
        cue.weight = activity.speakers > 1 ? 0.2 + 0.8 * std::min(1.0, std::abs(mine - 0.5) * 2) : 0.2;
        result.cues.push_back(cue);
    }

    // Long monologues: one side holding the floor, short pauses included.
    for (size_t i = 0; i < activity.owner.size();) {
        const int owner = activity.owner[i];
        if (!owner) {
            ++i;
            continue;
        }
        size_t end = i + 1, lastOwned = i;
        while (end < activity.owner.size()) {
            const int o = activity.owner[end];
            if (o && o != owner) break;
            if (o == owner) lastOwned = end;
            if (!o && int64_t(end - lastOwned) * w > kMonologueGapMs) break;
            ++end;
        }
        const int64_t length = int64_t(lastOwned + 1 - i) * w;
        if (length >= kMonologueMs) {
            Cue cue;
            cue.id = "monologue-" + std::to_string(int64_t(i) * w);
            cue.kind = "monologue";
            cue.atMs = int64_t(i) * w;
            cue.title = "Long monologue";
            cue.text = speakerName(input.names, owner) + " spoke for " + std::to_string(length / 1000) +
                       " seconds without a break at " + clock(cue.atMs) + ".";
            cue.data = {{"speaker", owner}, {"durationMs", length}};
            cue.weight = std::min(1.0, double(length) / 180'000.0);
            result.cues.push_back(cue);
        }
        i = lastOwned + 1;
    }

    // Questions.
    json bySpeaker = json::object();
    int questions = 0;
    std::optional<TranscriptSegment> firstQuestion;
    for (const auto& s : result.transcript) {
        if (!s.question) continue;
        ++questions;
        const std::string key = std::to_string(s.speaker);
        bySpeaker[key] = bySpeaker.value(key, 0) + 1;
        if (!firstQuestion) firstQuestion = s;
    }
    if (questions > 0) {
        Cue cue;
        cue.id = "questions";
        cue.kind = "questions";
        cue.atMs = firstQuestion->startMs;
        cue.title = "Questions asked";
        cue.text = std::to_string(questions) + (questions == 1 ? " question" : " questions") + " asked, the first: \"" +
                   firstQuestion->text + "\".";
        cue.data = {{"count", questions}, {"bySpeaker", bySpeaker}, {"first", firstQuestion->text}};
        cue.weight = std::min(1.0, 0.2 + 0.1 * questions);
        result.cues.push_back(cue);
    }

    // Long silences.
    int silences = 0;
    int64_t longest = 0, longestAt = 0;
    for (size_t i = 0; i < activity.owner.size();) {
        if (activity.owner[i]) {
            ++i;
            continue;
        }
        size_t end = i;
        while (end < activity.owner.size() && !activity.owner[end]) ++end;
        const int64_t length = int64_t(end - i) * w;
        if (length >= kLongSilenceMs) {
            ++silences;
            if (length > longest) {
                longest = length;
                longestAt = int64_t(i) * w;
            }
        }
        i = end;
    }
    if (silences > 0) {
        Cue cue;
        cue.id = "silence";
        cue.kind = "silence";
        cue.atMs = longestAt;
        cue.title = "Long silences";
        cue.text = std::to_string(silences) + (silences == 1 ? " long silence" : " long silences") + ", the longest " +
                   std::to_string(longest / 1000) + " seconds at " + clock(longestAt) + ".";
        cue.data = {{"count", silences}, {"longestMs", longest}};
        cue.weight = std::min(1.0, double(longest) / 30'000.0);
        result.cues.push_back(cue);
    }

    result.summary = summaryOf(result.transcript, input.names);
    return result;
}

json toJson(const TranscriptSegment& s) {
    return {{"speaker", s.speaker}, {"startMs", s.startMs}, {"endMs", s.endMs}, {"text", s.text}, {"question", s.question}};
}

json toJson(const Cue& c) {
    return {{"id", c.id},     {"kind", c.kind},   {"weight", c.weight}, {"atMs", c.atMs},
            {"title", c.title}, {"text", c.text}, {"data", c.data}};
}

json toJson(const SpeakerInfo& s) {
    return {{"index", s.index}, {"side", s.side}, {"name", s.name ? json(*s.name) : json(nullptr)}, {"talkMs", s.talkMs}};
}

std::string sharePage(const Analysis& analysis, const std::string& heading) {
    std::map<int, std::string> names;
    for (const auto& s : analysis.speakers)
        if (s.name) names[s.index] = *s.name;
    std::string page = "# " + heading + "\n\n## Summary\n\n";
    page += analysis.summary.empty() ? "Nothing was recognised in this recording.\n" : analysis.summary;
    page += "\n## Transcript\n\n";
    for (const auto& s : analysis.transcript) {
        page += "**" + speakerName(names, s.speaker) + "** (" + clock(s.startMs) + "): " + s.text + "\n\n";
    }
    return page;
}

}  // namespace vell::devserver
