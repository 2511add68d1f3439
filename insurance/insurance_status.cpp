#include "insurance/insurance_status.h"

#include "base/preference_keys.h"
#include "base/user_defaults.h"
#include "insurance/insurance_messages.h"
#include "insurance/insurance_recorder.h"

namespace vell::insurance {

namespace {
void addBuffer(InsuranceStatus& s, const InsuranceBufferStore& store) {
    const auto list = store.chunks();
    s.chunks = static_cast<int>(list.size());
    s.bytes = store.totalBytes();
    for (const auto& c : list) {
        if (!s.bufferedFrom || c.start < *s.bufferedFrom) s.bufferedFrom = c.start;
        if (!s.bufferedTo || c.end > *s.bufferedTo) s.bufferedTo = c.end;
    }
}
WallTime fromMs(std::int64_t ms) { return WallTime{std::chrono::milliseconds{ms}}; }
}  // namespace

InsuranceStatus statusOf(InsuranceRecorder& recorder) {
    InsuranceStatus s;
    s.enabled = recorder.isEnabled.get();
    s.privacyAccepted = recorder.privacyAccepted();
    s.listening = recorder.isListening.get();
    s.windowMinutes = recorder.windowMinutes.get();
    if (s.listening) s.device = recorder.listeningDeviceName.get();
    s.lastError = recorder.lastError.get();
    if (auto failure = recorder.writer().writeFailure(); failure && !s.lastError) {
        s.lastError = messages::kNotSaving.str() + "(" + *failure + ")";
    }
    addBuffer(s, recorder.store());
    return s;
}

InsuranceStatus storedStatus(UserDefaults& defaults, const InsuranceBufferStore& store) {
    InsuranceStatus s;
    s.enabled = defaults.boolValue(prefs::kInsuranceEnabled).value_or(false);
    s.privacyAccepted = defaults.boolValue(prefs::kInsurancePrivacyAccepted).value_or(false);
    s.windowMinutes = clampWindowMinutes(defaults.integerValue(prefs::kInsuranceWindowMinutes).value_or(0));
    addBuffer(s, store);
    return s;
}

nlohmann::json toJson(const InsuranceStatus& s) {
    nlohmann::json j{{"enabled", s.enabled},         {"privacyAccepted", s.privacyAccepted},
                     {"listening", s.listening},     {"windowMinutes", s.windowMinutes},
                     {"device", nullptr},            {"lastError", nullptr},
                     {"bufferedFrom", nullptr},      {"bufferedTo", nullptr},
                     {"bufferedSeconds", 0.0},       {"bytes", s.bytes},
                     {"chunks", s.chunks}};
    if (s.device) j["device"] = *s.device;
    if (s.lastError) j["lastError"] = *s.lastError;
    if (s.bufferedFrom && s.bufferedTo) {
        j["bufferedFrom"] = millisecondsSince1970(*s.bufferedFrom);
        j["bufferedTo"] = millisecondsSince1970(*s.bufferedTo);
        j["bufferedSeconds"] = std::chrono::duration<double>(*s.bufferedTo - *s.bufferedFrom).count();
    }
    j["agentRequests"] = nlohmann::json::array();
    for (const auto& a : s.agentRequests) j["agentRequests"].push_back(answerJson(a));
    return j;
}

InsuranceStatus statusFromJson(const nlohmann::json& j) {
    InsuranceStatus s;
    s.enabled = j.value("enabled", false);
    s.privacyAccepted = j.value("privacyAccepted", false);
    s.listening = j.value("listening", false);
    s.windowMinutes = j.value("windowMinutes", 15);
    if (j.contains("device") && j["device"].is_string()) s.device = j["device"].get<std::string>();
    if (j.contains("lastError") && j["lastError"].is_string()) s.lastError = j["lastError"].get<std::string>();
    if (j.contains("bufferedFrom") && j["bufferedFrom"].is_number()) s.bufferedFrom = fromMs(j["bufferedFrom"].get<std::int64_t>());
    if (j.contains("bufferedTo") && j["bufferedTo"].is_number()) s.bufferedTo = fromMs(j["bufferedTo"].get<std::int64_t>());
    s.bytes = j.value("bytes", std::int64_t(0));
    s.chunks = j.value("chunks", 0);
    if (auto it = j.find("agentRequests"); it != j.end() && it->is_array()) {
        for (const auto& a : *it) s.agentRequests.push_back(answerFromJson(a));
    }
    return s;
}

nlohmann::json chunksJson(const std::vector<InsuranceChunk>& chunks) {
    auto out = nlohmann::json::array();
    for (const auto& c : chunks) {
        nlohmann::json j{{"file", c.url.string()},
                         {"start", millisecondsSince1970(c.start)},
                         {"end", millisecondsSince1970(c.end)},
                         {"bytes", c.bytes},
                         {"open", c.isOpen}};
        if (c.activityPercent) j["activity"] = *c.activityPercent;
        out.push_back(std::move(j));
    }
    return out;
}

}  // namespace vell::insurance
