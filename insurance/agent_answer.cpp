#include "insurance/agent_answer.h"

#include <fmt/format.h>

#include <cmath>
#include <ctime>

#include "insurance/insurance_messages.h"

namespace vell::insurance {

namespace {

std::optional<double> number(const nlohmann::json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_number()) return std::nullopt;
    return it->get<double>();
}

std::optional<std::string> text(const nlohmann::json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

std::string say(const Text& sentence, Language language, const auto&... parts) {
    return fmt::format(fmt::runtime(sentence.in(language)), parts...);
}

// Local 24-hour "10:02": the user reads it against the clock on the wall.
std::string clockTime(WallTime t) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(t);
    std::tm local{};
    ::localtime_r(&seconds, &local);
    return fmt::format("{:02}:{:02}", local.tm_hour, local.tm_min);
}

// The span and the length to name: what was sent, or else what was asked.
std::pair<std::string, double> spanOf(const AgentAnswer& a) {
    if (a.sent) return {clockTime(a.sent->from) + "-" + clockTime(a.sent->to), a.sent->seconds};
    const auto from = fromMillisecondsSince1970(a.request.fromMs), to = fromMillisecondsSince1970(a.request.toMs);
    return {clockTime(from) + "-" + clockTime(to), std::max(0.0, (a.request.toMs - a.request.fromMs) / 1000)};
}

}  // namespace

std::optional<AgentRequest> decodeAgentRequest(const nlohmann::json& answer) {
    if (!answer.is_object()) return std::nullopt;
    auto it = answer.find("request");
    if (it == answer.end() || !it->is_object()) return std::nullopt;
    auto id = it->find("id");
    auto from = number(*it, "fromMs");
    auto to = number(*it, "toMs");
    if (id == it->end() || !id->is_string() || !from || !to) return std::nullopt;
    return AgentRequest{id->get<std::string>(), *from, *to};
}

nlohmann::json answerJson(const AgentAnswer& a) {
    nlohmann::json item = {{"id", a.request.id},
                           {"fromMs", a.request.fromMs},
                           {"toMs", a.request.toMs},
                           {"status", a.status},
                           {"reported", a.reported},
                           {"answeredAtMs", millisecondsSince1970(a.answeredAt)}};
    if (a.recordingID) item["recordingId"] = *a.recordingID;
    if (a.error) item["error"] = *a.error;
    if (a.sent) {
        item["sentFromMs"] = millisecondsSince1970(a.sent->from);
        item["sentToMs"] = millisecondsSince1970(a.sent->to);
        item["sentSeconds"] = a.sent->seconds;
    }
    return item;
}

AgentAnswer answerFromJson(const nlohmann::json& j) {
    AgentAnswer a;
    if (!j.is_object()) return a;
    a.request.id = text(j, "id").value_or("");
    a.request.fromMs = number(j, "fromMs").value_or(0);
    a.request.toMs = number(j, "toMs").value_or(0);
    a.status = text(j, "status").value_or("");
    a.recordingID = text(j, "recordingId");
    a.error = text(j, "error");
    a.reported = j.value("reported", false);
    a.answeredAt = fromMillisecondsSince1970(number(j, "answeredAtMs").value_or(0));
    auto from = number(j, "sentFromMs"), to = number(j, "sentToMs");
    if (from && to) {
        a.sent = SentAudio{fromMillisecondsSince1970(*from), fromMillisecondsSince1970(*to), number(j, "sentSeconds").value_or(0)};
    }
    return a;
}

std::string spokenDuration(double seconds, Language language) {
    const long long whole = std::max(1LL, std::llround(seconds));
    if (whole < 60) return whole == 1 ? messages::kOneSecond.in(language) : say(messages::kSeconds, language, whole);
    const long long minutes = std::llround(seconds / 60);
    return minutes == 1 ? messages::kOneMinute.in(language) : say(messages::kMinutes, language, minutes);
}

std::string sentNotice(const AgentAnswer& a, Language language) {
    const auto [span, seconds] = spanOf(a);
    return say(messages::kSentNotice, language, spokenDuration(seconds, language), span);
}

std::string answerLine(const AgentAnswer& a, Language language) {
    const auto [span, seconds] = spanOf(a);
    const Text& line = a.status == "uploaded" ? messages::kSentLine
                       : a.status == "empty"  ? messages::kEmptyLine
                                              : messages::kFailedLine;
    return say(line, language, span, spokenDuration(seconds, language), clockTime(a.answeredAt));
}

}  // namespace vell::insurance
