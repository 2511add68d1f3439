// Resumable upload and the single multipart upload; each new recording is queued for processing.
#include <charconv>

#include "devserver/routes.h"

namespace vell::devserver {

using nlohmann::json;

namespace {
std::optional<int64_t> decimalHeader(const httplib::Request& req, const char* name) {
    if (!req.has_header(name)) return std::nullopt;
    const std::string text = req.get_header_value(name);
    int64_t value = -1;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || value < 0) return std::nullopt;
    return value;
}

std::optional<int64_t> decimalText(const std::string& text) {
    if (text.empty()) return std::nullopt;
    int64_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

void start(Exchange& ex, Services& s) {
    auto account = signedIn(ex, s.auth);
    if (!account) return;
    const std::string key = ex.req.get_header_value("X-Vell-Idempotency-Key");
    auto body = ex.json();
    if (key.empty() || !body || !body->is_object()) return ex.fail(400, "missing_fields");
    Uploads::StartRequest request;
    const json& b = *body;
    if (!b.contains("mimeType") || !b["mimeType"].is_string() || !b.contains("filename") || !b["filename"].is_string() ||
        !b.contains("totalBytes") || !b["totalBytes"].is_number_integer() || b["totalBytes"].get<int64_t>() < 0) {
        return ex.fail(400, "missing_fields");
    }
    request.mimeType = b["mimeType"].get<std::string>();
    request.filename = b["filename"].get<std::string>();
    request.totalBytes = b["totalBytes"].get<int64_t>();
    if (request.mimeType.empty() || request.filename.empty()) return ex.fail(400, "missing_fields");
    if (b.contains("summaryPromptId") && !b["summaryPromptId"].is_null()) {
        if (!b["summaryPromptId"].is_string()) return ex.fail(400, "missing_fields");
        request.summaryPromptId = b["summaryPromptId"].get<std::string>();
    }
    Upload upload = s.uploads.start(account->email, key, request);
    json reply = {{"uploadId", upload.id}, {"bytesReceived", upload.bytesReceived},
                  {"status", upload.finalized ? "done" : "open"}};
    if (upload.finalized) reply["recordingId"] = upload.recordingId;
    ex.reply(200, reply);
}

void part(Exchange& ex, Services& s) {
    auto account = signedIn(ex, s.auth);
    if (!account) return;
    const std::string uploadId = ex.req.matches[1];
    auto offset = decimalHeader(ex.req, "X-Upload-Offset");
    if (!offset) return ex.fail(400, "invalid_offset");
    std::optional<Uploads::PartLimit> limit;
    if (ex.fault && ex.fault->action != Fault::Action::Stream) limit = Uploads::PartLimit{ex.fault->bytes, ex.fault->action == Fault::Action::CloseAfterBytes};
    auto result = s.uploads.appendPart(account->email, uploadId, *offset, decimalHeader(ex.req, "Content-Length"),
                                       ex.body(), limit);
    if (limit && limit->dropAfter) return ex.dropConnection();
    using O = Uploads::PartOutcome;
    switch (result.outcome) {
        case O::Stored:
            return ex.reply(200, {{"ok", true}, {"bytesReceived", result.bytesReceived}});
        case O::NotFound:
            return ex.fail(404, "not_found");
        case O::OffsetMismatch:
            return ex.fail(409, "offset_mismatch", {{"bytesReceived", result.bytesReceived}});
        case O::AlreadyFinalized:
            return ex.fail(409, "already_finalized", {{"recordingId", result.recordingId}});
        case O::ExceedsTotal:
            return ex.fail(400, "exceeds_total", {{"bytesReceived", result.bytesReceived}});
        case O::EmptyPart:
            return ex.fail(400, "empty_part", {{"bytesReceived", result.bytesReceived}});
        case O::StorageFailed:
            return ex.fail(500, "storage_failed");
    }
}

void finalize(Exchange& ex, Services& s) {
    auto account = signedIn(ex, s.auth);
    if (!account) return;
    const std::string uploadId = ex.req.matches[1];
    std::optional<int64_t> started, ended;
    std::string text;
    ex.body()([&](const char* data, size_t size) {
        if (text.size() < (1 << 16)) text.append(data, size);
        return true;
    });
    if (!text.empty()) {
        auto body = json::parse(text, nullptr, false);
        if (body.is_discarded() || !body.is_object() || !optionalInteger(body, "captureStartedAt", started) ||
            !optionalInteger(body, "captureEndedAt", ended)) {
            return ex.fail(400, "invalid_fields");
        }
    }
    auto result = s.uploads.finalize(account->email, uploadId, started, ended);
    using O = Uploads::FinalizeOutcome;
    switch (result.outcome) {
        case O::Created:
            if (s.conversations) s.conversations->enqueueRecording(result.recordingId);
            return ex.reply(200, {{"id", result.recordingId}});
        case O::NotFound:
            return ex.fail(404, "not_found");
        case O::Incomplete:
            return ex.fail(409, "incomplete", {{"bytesReceived", result.bytesReceived}});
        case O::StorageFailed:
            return ex.fail(500, "storage_failed");
    }
}

void multipartRecording(Exchange& ex, Services& s) {
    auto account = signedIn(ex, s.auth);
    if (!account) return;
    if (!ex.req.is_multipart_form_data()) return ex.fail(400, "missing_fields");
    IncomingRecording incoming(s.store);
    std::map<std::string, std::string> fields;
    std::string current;
    bool inAudio = false, duplicateAudio = false, storageFailed = false;
    bool complete = ex.multipart(
        [&](const httplib::MultipartFormData& header) {
            current = header.name;
            inAudio = header.name == "audio";
            if (inAudio) {
                if (incoming.started()) {
                    duplicateAudio = true;
                    inAudio = false;
                } else if (!incoming.begin(header.filename.empty() ? "audio" : header.filename,
                                           header.content_type.empty() ? "application/octet-stream" : header.content_type)) {
                    storageFailed = true;
                    inAudio = false;
                }
            }
            return true;
        },
        [&](const char* data, size_t size) {
            if (inAudio) {
                if (!incoming.write(data, size)) storageFailed = true;
            } else if (fields[current].size() < 4096) {
                fields[current].append(data, size);
            }
            return true;
        });
    if (!complete) return ex.fail(400, "bad_request");
    if (storageFailed) return ex.fail(500, "storage_failed");
    if (!incoming.started() || duplicateAudio) return ex.fail(400, "missing_fields");
    std::optional<int64_t> started, ended;
    std::optional<std::string> prompt;
    for (const auto& [name, value] : fields) {
        if (name == "capture_started_at" && !(started = decimalText(value))) return ex.fail(400, "invalid_fields");
        if (name == "capture_ended_at" && !(ended = decimalText(value))) return ex.fail(400, "invalid_fields");
        if (name == "summary_prompt_id" && !value.empty()) prompt = value;
    }
    auto recording = incoming.commit(account->email, started, ended, prompt);
    if (!recording) return ex.fail(500, "storage_failed");
    if (s.conversations) s.conversations->enqueueRecording(recording->id);
    ex.reply(200, {{"id", recording->id}});
}

}  // namespace

void addUploadRoutes(Router& router, Services& s) {
    router.post(R"(/api/recordings/upload/start)", [&s](Exchange& ex) { start(ex, s); });
    router.put(R"(/api/recordings/upload/([^/]+)/part)", [&s](Exchange& ex) { part(ex, s); }, true);
    router.post(R"(/api/recordings/upload/([^/]+)/finalize)", [&s](Exchange& ex) { finalize(ex, s); });
    router.post(R"(/api/recordings)", [&s](Exchange& ex) { multipartRecording(ex, s); });
}

}  // namespace vell::devserver
