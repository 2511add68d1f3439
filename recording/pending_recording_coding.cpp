#include "recording/pending_recording_coding.h"

#include "platform/files.h"

namespace vell::recording::coding {

namespace {
using nlohmann::json;

// A key that may be absent: missing and null both read as absent, any other type than
// the expected one fails the entry.
template <class T, class Check>
bool optionalField(const json& object, const char* key, std::optional<T>& out, Check isType) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) return true;
    if (!isType(*it)) return false;
    out = it->template get<T>();
    return true;
}

bool optionalDate(const json& object, const char* key, std::optional<WallTime>& out) {
    std::optional<double> seconds;
    if (!optionalField(object, key, seconds, [](const json& v) { return v.is_number(); })) return false;
    if (seconds) out = fromSecondsSinceReferenceDate(*seconds);
    return true;
}

const auto isString = [](const json& v) { return v.is_string(); };
const auto isBool = [](const json& v) { return v.is_boolean(); };
}  // namespace

nlohmann::ordered_json encode(const PendingRecording& r) {
    nlohmann::ordered_json out;
    out["id"] = r.id;
    out["fileURL"] = files::fileURL(r.fileURL);
    out["startedAt"] = secondsSinceReferenceDate(r.startedAt);
    if (r.finishedAt) out["finishedAt"] = secondsSinceReferenceDate(*r.finishedAt);
    out["status"] = toString(r.status);
    if (r.lastError) out["lastError"] = *r.lastError;
    out["attempts"] = r.attempts;
    if (r.lastErrorIsNetwork) out["lastErrorIsNetwork"] = *r.lastErrorIsNetwork;
    if (r.accountID) out["accountID"] = *r.accountID;
    if (r.liveSessionID) out["liveSessionID"] = *r.liveSessionID;
    if (r.discardedAt) out["discardedAt"] = secondsSinceReferenceDate(*r.discardedAt);
    return out;
}

std::optional<PendingRecording> decode(const json& o) {
    if (!o.is_object()) return std::nullopt;
    auto id = o.find("id");
    auto url = o.find("fileURL");
    auto started = o.find("startedAt");
    auto status = o.find("status");
    auto attempts = o.find("attempts");
    if (id == o.end() || !id->is_string()) return std::nullopt;
    if (url == o.end() || !url->is_string()) return std::nullopt;
    if (started == o.end() || !started->is_number()) return std::nullopt;
    if (status == o.end() || !status->is_string()) return std::nullopt;
    if (attempts == o.end() || !(attempts->is_number_integer() || attempts->is_number_unsigned())) return std::nullopt;

    PendingRecording r;
    r.id = id->get<std::string>();
    // A URL of another scheme is still a URL; its entry names no local file and is
    // dropped by the missing-file filter rather than failing the whole list.
    r.fileURL = files::pathFromFileURL(url->get_ref<const std::string&>()).value_or(std::filesystem::path{});
    r.startedAt = fromSecondsSinceReferenceDate(started->get<double>());
    auto parsed = statusFromString(status->get_ref<const std::string&>());
    if (!parsed) return std::nullopt;
    r.status = *parsed;
    r.attempts = attempts->get<long long>();
    if (!optionalDate(o, "finishedAt", r.finishedAt)) return std::nullopt;
    if (!optionalField(o, "lastError", r.lastError, isString)) return std::nullopt;
    if (!optionalField(o, "lastErrorIsNetwork", r.lastErrorIsNetwork, isBool)) return std::nullopt;
    if (!optionalField(o, "accountID", r.accountID, isString)) return std::nullopt;
    if (!optionalField(o, "liveSessionID", r.liveSessionID, isString)) return std::nullopt;
    if (!optionalDate(o, "discardedAt", r.discardedAt)) return std::nullopt;
    return r;
}

std::string encodeList(const std::vector<PendingRecording>& list) {
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const auto& r : list) array.push_back(encode(r));
    return array.dump();
}

std::optional<std::vector<PendingRecording>> decodeList(std::string_view text) {
    json document = json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!document.is_array()) return std::nullopt;
    std::vector<PendingRecording> out;
    out.reserve(document.size());
    for (const auto& entry : document) {
        auto r = decode(entry);
        if (!r) return std::nullopt;
        out.push_back(std::move(*r));
    }
    return out;
}

}  // namespace vell::recording::coding
