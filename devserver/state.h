#pragma once
// The durable state of the reference service: accounts, sessions, uploads, recordings and
// agent requests. Plain values; Store owns the one instance and its persistence.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace vell::devserver {

struct Account {
    std::string id;
    std::string email;  // lower-case; the key of the account
    std::string passwordHash;  // libsodium crypto_pwhash_str (Argon2id)
    std::string role = "user";
    std::string totpSecret;  // base32; empty without a second factor
    std::vector<std::string> backupCodeHashes;  // SHA-256 hex of each unused code
    // Digest of the second factor, role and backup codes the account was set up with, so a
    // restart with the same flags keeps its state (used backup codes stay used).
    std::string setupDigest;
};

struct Session {
    std::string email;
    int64_t expiresAtMs = 0;
};

struct Upload {
    std::string id;
    std::string email;
    std::string key;  // the client's idempotency key
    std::string mimeType;
    std::string filename;
    std::optional<std::string> summaryPromptId;
    int64_t totalBytes = 0;
    int64_t bytesReceived = 0;  // durable: the part file holds exactly this many bytes
    bool finalized = false;
    std::string recordingId;
    int64_t createdAtMs = 0;
};

struct Recording {
    std::string id;
    std::string email;
    std::string filename;
    std::string mimeType;
    int64_t bytes = 0;
    std::string sha256;
    std::optional<int64_t> captureStartedAt;
    std::optional<int64_t> captureEndedAt;
    std::optional<std::string> summaryPromptId;
    std::string path;
    std::string source;  // "resumable" or "multipart"
    int64_t createdAtMs = 0;
};

struct AgentRequest {
    std::string id;
    std::string email;
    int64_t fromMs = 0;
    int64_t toMs = 0;
    std::string status = "pending";  // pending, uploaded, failed, empty
    std::optional<std::string> recordingId;
    std::optional<std::string> error;
    int64_t createdAtMs = 0;
    std::optional<int64_t> reportedAtMs;
};

struct State {
    std::map<std::string, Account> accounts;  // by email
    std::map<std::string, Session> sessions;  // by SHA-256 hex of the cookie value
    std::map<std::string, Upload> uploads;  // by upload id
    std::map<std::string, Recording> recordings;  // by recording id
    std::vector<AgentRequest> requests;  // in the order they were made

    const Upload* findUpload(const std::string& email, const std::string& key) const;
};

void to_json(nlohmann::json& j, const Account& v);
void from_json(const nlohmann::json& j, Account& v);
void to_json(nlohmann::json& j, const Session& v);
void from_json(const nlohmann::json& j, Session& v);
void to_json(nlohmann::json& j, const Upload& v);
void from_json(const nlohmann::json& j, Upload& v);
void to_json(nlohmann::json& j, const Recording& v);
void from_json(const nlohmann::json& j, Recording& v);
void to_json(nlohmann::json& j, const AgentRequest& v);
void from_json(const nlohmann::json& j, AgentRequest& v);
void to_json(nlohmann::json& j, const State& v);
void from_json(const nlohmann::json& j, State& v);

}  // namespace vell::devserver
