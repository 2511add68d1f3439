#include "devserver/state.h"

namespace vell::devserver {

using nlohmann::json;

namespace {
template <class T>
void putOptional(json& j, const char* key, const std::optional<T>& value) {
    if (value) j[key] = *value;
}
template <class T>
void getOptional(const json& j, const char* key, std::optional<T>& value) {
    auto it = j.find(key);
    if (it != j.end() && !it->is_null()) value = it->get<T>();
}
}  // namespace

const Upload* State::findUpload(const std::string& email, const std::string& key) const {
    for (const auto& [id, upload] : uploads) {
        if (upload.email == email && upload.key == key) return &upload;
    }
    return nullptr;
}

void to_json(json& j, const Account& v) {
    j = json{{"id", v.id}, {"email", v.email}, {"passwordHash", v.passwordHash}, {"role", v.role},
             {"totpSecret", v.totpSecret}, {"backupCodeHashes", v.backupCodeHashes}, {"setupDigest", v.setupDigest}};
}
void from_json(const json& j, Account& v) {
    j.at("id").get_to(v.id);
    j.at("email").get_to(v.email);
    j.at("passwordHash").get_to(v.passwordHash);
    v.role = j.value("role", "user");
    v.totpSecret = j.value("totpSecret", "");
    v.backupCodeHashes = j.value("backupCodeHashes", std::vector<std::string>{});
    v.setupDigest = j.value("setupDigest", "");
}

void to_json(json& j, const Session& v) { j = json{{"email", v.email}, {"expiresAtMs", v.expiresAtMs}}; }
void from_json(const json& j, Session& v) {
    j.at("email").get_to(v.email);
    j.at("expiresAtMs").get_to(v.expiresAtMs);
}

void to_json(json& j, const Upload& v) {
    j = json{{"id", v.id},
             {"email", v.email},
             {"key", v.key},
             {"mimeType", v.mimeType},
             {"filename", v.filename},
             {"totalBytes", v.totalBytes},
             {"bytesReceived", v.bytesReceived},
             {"finalized", v.finalized},
             {"recordingId", v.recordingId},
             {"createdAtMs", v.createdAtMs}};
    putOptional(j, "summaryPromptId", v.summaryPromptId);
}
void from_json(const json& j, Upload& v) {
    j.at("id").get_to(v.id);
    j.at("email").get_to(v.email);
    j.at("key").get_to(v.key);
    j.at("mimeType").get_to(v.mimeType);
    j.at("filename").get_to(v.filename);
    j.at("totalBytes").get_to(v.totalBytes);
    j.at("bytesReceived").get_to(v.bytesReceived);
    v.finalized = j.value("finalized", false);
    v.recordingId = j.value("recordingId", "");
    v.createdAtMs = j.value("createdAtMs", int64_t{0});
    getOptional(j, "summaryPromptId", v.summaryPromptId);
}

void to_json(json& j, const Recording& v) {
    j = json{{"id", v.id},         {"email", v.email},   {"filename", v.filename},
             {"mimeType", v.mimeType}, {"bytes", v.bytes}, {"sha256", v.sha256},
             {"path", v.path},     {"source", v.source}, {"createdAtMs", v.createdAtMs}};
    j["captureStartedAt"] = v.captureStartedAt ? json(*v.captureStartedAt) : json(nullptr);
    j["captureEndedAt"] = v.captureEndedAt ? json(*v.captureEndedAt) : json(nullptr);
    j["summaryPromptId"] = v.summaryPromptId ? json(*v.summaryPromptId) : json(nullptr);
}
void from_json(const json& j, Recording& v) {
    j.at("id").get_to(v.id);
    j.at("email").get_to(v.email);
    j.at("filename").get_to(v.filename);
    j.at("mimeType").get_to(v.mimeType);
    j.at("bytes").get_to(v.bytes);
    j.at("sha256").get_to(v.sha256);
    j.at("path").get_to(v.path);
    v.source = j.value("source", "");
    v.createdAtMs = j.value("createdAtMs", int64_t{0});
    getOptional(j, "captureStartedAt", v.captureStartedAt);
    getOptional(j, "captureEndedAt", v.captureEndedAt);
    getOptional(j, "summaryPromptId", v.summaryPromptId);
}

void to_json(json& j, const AgentRequest& v) {
    j = json{{"id", v.id},         {"email", v.email},   {"fromMs", v.fromMs},
             {"toMs", v.toMs},     {"status", v.status}, {"createdAtMs", v.createdAtMs}};
    j["recordingId"] = v.recordingId ? json(*v.recordingId) : json(nullptr);
    j["error"] = v.error ? json(*v.error) : json(nullptr);
    j["reportedAtMs"] = v.reportedAtMs ? json(*v.reportedAtMs) : json(nullptr);
}
void from_json(const json& j, AgentRequest& v) {
    j.at("id").get_to(v.id);
    j.at("email").get_to(v.email);
    j.at("fromMs").get_to(v.fromMs);
    j.at("toMs").get_to(v.toMs);
    v.status = j.value("status", "pending");
    v.createdAtMs = j.value("createdAtMs", int64_t{0});
    getOptional(j, "recordingId", v.recordingId);
    getOptional(j, "error", v.error);
    getOptional(j, "reportedAtMs", v.reportedAtMs);
}

void to_json(json& j, const State& v) {
    j = json{{"version", 1},
             {"accounts", v.accounts},
             {"sessions", v.sessions},
             {"uploads", v.uploads},
             {"recordings", v.recordings},
             {"requests", v.requests}};
}
void from_json(const json& j, State& v) {
    v.accounts = j.value("accounts", decltype(v.accounts){});
    v.sessions = j.value("sessions", decltype(v.sessions){});
    v.uploads = j.value("uploads", decltype(v.uploads){});
    v.recordings = j.value("recordings", decltype(v.recordings){});
    v.requests = j.value("requests", decltype(v.requests){});
}

}  // namespace vell::devserver
