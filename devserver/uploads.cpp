#include "devserver/uploads.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>

#include "devserver/crypto.h"
#include "devserver/file_sink.h"

namespace vell::devserver {

namespace fs = std::filesystem;

std::string recordingExtension(const std::string& filename, const std::string& mimeType) {
    auto dot = filename.rfind('.');
    if (dot != std::string::npos && dot + 1 < filename.size() && filename.size() - dot <= 6) {
        std::string ext = filename.substr(dot + 1);
        if (std::all_of(ext.begin(), ext.end(), [](unsigned char c) { return std::isalnum(c); })) {
            std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
            return "." + ext;
        }
    }
    if (mimeType == "audio/aac") return ".aac";
    if (mimeType == "audio/mp4") return ".m4a";
    return ".bin";
}

fs::path Uploads::partPath(const std::string& uploadId) const { return store_.uploadsDir() / (uploadId + ".part"); }

std::shared_ptr<std::mutex> Uploads::lockFor(const std::string& uploadId) {
    std::lock_guard lock(locksMutex_);
    auto& entry = locks_[uploadId];
    if (!entry) entry = std::make_shared<std::mutex>();
    return entry;
}

std::vector<std::string> Uploads::recover() {
    std::vector<std::string> notes;
    store_.mutate([&](State& state) {
        for (auto& [id, upload] : state.uploads) {
            const fs::path path = partPath(id);
            std::error_code error;
            if (upload.finalized) {
                // A crash between saving the recording and removing the part file.
                fs::remove(path, error);
                continue;
            }
            const auto size = fs::exists(path, error) ? static_cast<int64_t>(fs::file_size(path, error)) : int64_t{-1};
            if (size > upload.bytesReceived) {
                if (::truncate(path.c_str(), upload.bytesReceived) == 0) {
                    notes.push_back("upload " + id + ": dropped " + std::to_string(size - upload.bytesReceived) +
                                    " unacknowledged bytes");
                }
            } else if (size < upload.bytesReceived) {
                // Should not happen (bytes are synced before they are counted); trust the disk.
                notes.push_back("upload " + id + ": file holds " + std::to_string(std::max<int64_t>(size, 0)) +
                                " of " + std::to_string(upload.bytesReceived) + " counted bytes");
                upload.bytesReceived = std::max<int64_t>(size, 0);
            }
        }
    });
    return notes;
}

Upload Uploads::start(const std::string& email, const std::string& key, const StartRequest& request) {
    auto existing = store_.read([&](const State& state) -> std::optional<Upload> {
        if (const Upload* u = state.findUpload(email, key)) return *u;
        return std::nullopt;
    });
    if (existing) {
        auto guard = lockFor(existing->id);
        std::lock_guard lock(*guard);
        return store_.mutate([&](State& state) {
            Upload& upload = state.uploads.at(existing->id);
            if (!upload.finalized && (upload.totalBytes != request.totalBytes || upload.mimeType != request.mimeType)) {
                // A different file under the same name: its bytes so far are worthless.
                if (::truncate(partPath(upload.id).c_str(), 0) == 0 || errno == ENOENT) {
                    upload.bytesReceived = 0;
                    upload.totalBytes = request.totalBytes;
                    upload.mimeType = request.mimeType;
                    upload.filename = request.filename;
                }
            }
            if (request.summaryPromptId) upload.summaryPromptId = request.summaryPromptId;
            return upload;
        });
    }
    Upload upload;
    upload.id = "upl_" + crypto::randomHex(12);
    upload.email = email;
    upload.key = key;
    upload.mimeType = request.mimeType;
    upload.filename = request.filename;
    upload.totalBytes = request.totalBytes;
    upload.summaryPromptId = request.summaryPromptId;
    upload.createdAtMs = crypto::nowMs();
    FileSink file;
    if (!file.open(partPath(upload.id), 0) || !file.sync()) throw std::runtime_error("cannot create the upload file");
    file.close();
    syncDirectory(store_.uploadsDir());
    return store_.mutate([&](State& state) {
        // Two starts of one key may race; the first one saved wins.
        if (const Upload* other = state.findUpload(email, key)) {
            std::error_code ignored;
            fs::remove(partPath(upload.id), ignored);
            return *other;
        }
        state.uploads[upload.id] = upload;
        return upload;
    });
}

Uploads::PartResult Uploads::appendPart(const std::string& email, const std::string& uploadId, int64_t offset,
                                        std::optional<int64_t> contentLength, const BodyStream& body,
                                        std::optional<PartLimit> limit) {
    auto drain = [&](PartResult result) {
        result.bodyComplete = body([](const char*, size_t) { return true; });
        return result;
    };
    auto guard = lockFor(uploadId);
    std::lock_guard lock(*guard);
    auto snapshot = store_.read([&](const State& state) -> std::optional<Upload> {
        auto it = state.uploads.find(uploadId);
        if (it == state.uploads.end() || it->second.email != email) return std::nullopt;
        return it->second;
    });
    if (!snapshot) return drain({PartOutcome::NotFound});
    if (snapshot->finalized) return drain({PartOutcome::AlreadyFinalized, snapshot->bytesReceived, snapshot->recordingId});
    if (offset != snapshot->bytesReceived) return drain({PartOutcome::OffsetMismatch, snapshot->bytesReceived});
    const int64_t room = snapshot->totalBytes - offset;
    if (contentLength && *contentLength > room) return drain({PartOutcome::ExceedsTotal, snapshot->bytesReceived});

    FileSink file;
    if (!file.open(partPath(uploadId), offset)) return drain({PartOutcome::StorageFailed, snapshot->bytesReceived});
    int64_t received = 0;
    bool tooLong = false, writeFailed = false, stoppedAtLimit = false;
    const int64_t keep = limit ? std::max<int64_t>(limit->bytes, 0) : room;
    bool complete = body([&](const char* data, size_t size) {
        const int64_t before = received;
        received += static_cast<int64_t>(size);
        if (received > room) tooLong = true;
        if (tooLong || writeFailed) return true;  // read on, store nothing more
        const int64_t take = std::clamp<int64_t>(keep - before, 0, static_cast<int64_t>(size));
        if (take > 0 && !file.write(data, static_cast<size_t>(take))) writeFailed = true;
        if (limit && limit->dropAfter && received >= keep) {
            stoppedAtLimit = true;
            return false;
        }
        return true;
    });
    if (tooLong || writeFailed || !file.sync()) {
        file.rollback();
        return {tooLong ? PartOutcome::ExceedsTotal : PartOutcome::StorageFailed, offset, {}, complete};
    }
    file.close();
    if (received == 0 && complete) return {PartOutcome::EmptyPart, offset};
    const int64_t count = offset + file.written();
    store_.mutate([&](State& state) { state.uploads.at(uploadId).bytesReceived = count; });
    return {PartOutcome::Stored, count, {}, complete && !stoppedAtLimit};
}

Uploads::FinalizeResult Uploads::finalize(const std::string& email, const std::string& uploadId,
                                          std::optional<int64_t> captureStartedAt, std::optional<int64_t> captureEndedAt) {
    auto guard = lockFor(uploadId);
    std::lock_guard lock(*guard);
    auto snapshot = store_.read([&](const State& state) -> std::optional<Upload> {
        auto it = state.uploads.find(uploadId);
        if (it == state.uploads.end() || it->second.email != email) return std::nullopt;
        return it->second;
    });
    if (!snapshot) return {FinalizeOutcome::NotFound};
    if (snapshot->finalized) return {FinalizeOutcome::Created, snapshot->recordingId, snapshot->bytesReceived};
    if (snapshot->bytesReceived != snapshot->totalBytes) return {FinalizeOutcome::Incomplete, {}, snapshot->bytesReceived};

    Recording recording;
    recording.id = "rec_" + crypto::randomHex(12);
    recording.email = email;
    recording.filename = snapshot->filename;
    recording.mimeType = snapshot->mimeType;
    recording.bytes = snapshot->bytesReceived;
    recording.captureStartedAt = captureStartedAt;
    recording.captureEndedAt = captureEndedAt;
    recording.summaryPromptId = snapshot->summaryPromptId;
    recording.source = "resumable";
    recording.createdAtMs = crypto::nowMs();
    const fs::path part = partPath(uploadId);
    const fs::path target = store_.recordingsDir() / (recording.id + recordingExtension(snapshot->filename, snapshot->mimeType));
    recording.path = target.string();
    auto digest = crypto::sha256File(part);
    // A hard link first: a crash before the state is saved leaves the upload open and whole.
    std::error_code error;
    if (!digest || (fs::create_hard_link(part, target, error), error)) return {FinalizeOutcome::StorageFailed};
    recording.sha256 = *digest;
    syncDirectory(store_.recordingsDir());
    store_.mutate([&](State& state) {
        Upload& upload = state.uploads.at(uploadId);
        upload.finalized = true;
        upload.recordingId = recording.id;
        state.recordings[recording.id] = recording;
    });
    fs::remove(part, error);
    return {FinalizeOutcome::Created, recording.id, snapshot->bytesReceived};
}

}  // namespace vell::devserver
