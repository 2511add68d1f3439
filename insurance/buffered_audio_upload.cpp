#include "insurance/buffered_audio_upload.h"

#include "base/private_folder.h"
#include "base/log.h"
#include "base/uuid.h"
#include "insurance/insurance_messages.h"
#include "recording/pending_recording.h"
#include "service/upload_queue.h"

namespace vell::insurance {

namespace {
const log::Logger kLog("BufferedAudioUpload");
}

BufferedAudioUpload::BufferedAudioUpload(BufferedUploadParts parts) : parts_(std::move(parts)) {
    std::weak_ptr<int> alive = alive_;
    attempts_ = parts_.uploads->watchAttempts(
        [this, alive](const recording::PendingRecording& r, const Expected<std::string, service::UploadError>& result) {
            if (!alive.lock() || !waiting_.count(r.id)) return;
            if (!result) {
                kLog.error("buffered audio " + r.id + " did not upload: " + result.error().description());
                return settle(r.id, unexpected(messages::kUploadFailed.str()));
            }
            std::optional<std::string> recordingID;
            if (!result->empty()) recordingID = *result;
            settle(r.id, recordingID);
        });
}

BufferedAudioUpload::~BufferedAudioUpload() {
    for (auto& [id, w] : waiting_) w.limit.cancel();
}

void BufferedAudioUpload::upload(const std::vector<InsuranceChunk>& chunks, Done done) {
    if (chunks.empty()) return done(unexpected(messages::kNothingSelected.str()));
    const std::string id = newUUIDString();
    std::error_code ec;
    files::createPrivateDirectories(parts_.directory, ec);
    const auto file = parts_.directory / ("vell_rec_" + id + ".aac");
    if (auto joined = parts_.concatenate(chunks, file); !joined) {
        // A chunk the prune removed meanwhile, or a full disk: nothing half-made stays.
        std::filesystem::remove(file, ec);
        kLog.error("could not join buffered audio: " + joined.error());
        return done(unexpected(joined.error()));
    }
    recording::PendingRecording r;
    r.id = id;
    r.fileURL = file;
    r.startedAt = chunks.front().start;
    r.finishedAt = chunks.back().end;
    r.status = recording::PendingRecording::Status::ready;
    r.accountID = parts_.accountID ? parts_.accountID() : std::nullopt;
    std::weak_ptr<int> alive = alive_;
    Waiting waiting{std::move(done), parts_.main->postAfter(parts_.limitSeconds, [this, alive, id] {
                        if (alive.lock()) settle(id, unexpected(messages::kUploadFailed.str()));
                    })};
    waiting_.emplace(id, std::move(waiting));
    parts_.pending->add(std::move(r));
    kLog.info("buffered audio queued for upload as " + id);
    parts_.uploads->wake();
}

void BufferedAudioUpload::settle(const std::string& pendingID, Result result) {
    auto it = waiting_.find(pendingID);
    if (it == waiting_.end()) return;
    Waiting w = std::move(it->second);
    waiting_.erase(it);
    w.limit.cancel();
    w.done(std::move(result));
}

}  // namespace vell::insurance
