#include "service/resumable_upload.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>

#include "base/files.h"
#include "base/log.h"
#include "service/multipart_builder.h"
#include "service/reply_records.h"

namespace vell::service {

namespace {

const log::Logger& logger() {
    static const log::Logger l("Upload");
    return l;
}

std::error_code lastError() { return {errno, std::generic_category()}; }

struct Fd {
    int fd = -1;
    ~Fd() {
        if (fd >= 0) ::close(fd);
    }
};

// Reads exactly length bytes at offset, or fewer when the file ended early.
Expected<std::string, std::error_code> readAt(int fd, long long offset, long long length) {
    std::string buffer(static_cast<size_t>(length), '\0');
    size_t done = 0;
    while (done < buffer.size()) {
        ssize_t n = ::pread(fd, buffer.data() + done, buffer.size() - done, offset + static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return unexpected(lastError());
        if (n == 0) break;
        done += static_cast<size_t>(n);
    }
    buffer.resize(done);
    return buffer;
}

void report(const Progress& progress, long long offset, long long total) {
    if (progress) progress(total == 0 ? 0.0 : static_cast<double>(offset) / static_cast<double>(total));
}

}  // namespace

std::optional<std::pair<long long, long long>> captureMilliseconds(const std::optional<CaptureWindow>& capture) {
    if (!capture || !capture->end || !(*capture->end > capture->start)) return std::nullopt;
    return std::pair{millisecondsSince1970(capture->start), millisecondsSince1970(*capture->end)};
}

std::string mimeTypeFor(const std::filesystem::path& file) {
    std::string ext = file.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext == ".aac" ? "audio/aac" : "audio/mp4";
}

Expected<std::string, UploadError> RecordingUploads::uploadRecording(const std::filesystem::path& file,
                                                                     const std::optional<std::string>& summaryPromptID,
                                                                     const std::optional<CaptureWindow>& capture,
                                                                     const Progress& progress,
                                                                     const std::function<void(long long, long long)>& bytes) const {
    const std::string mimeType = mimeTypeFor(file);
    const std::string fileName = file.filename().string();
    // Only a regular file, never through a link: a FIFO would stall every upload behind
    // it, a link could send someone else's file.
    std::error_code openError;
    Fd in{files::openRegular(file, O_RDONLY, /*followLinks=*/false, openError)};
    if (in.fd < 0) return unexpected(UploadError::fileError(openError));
    struct stat st {};
    if (::fstat(in.fd, &st) != 0) return unexpected(UploadError::fileError(lastError()));
    const long long totalBytes = st.st_size;

    Json startBody{{"mimeType", mimeType}, {"filename", fileName}, {"totalBytes", totalBytes}};
    if (summaryPromptID) startBody["summaryPromptId"] = *summaryPromptID;
    auto started = client_.send({.method = "POST",
                                 .path = "api/recordings/upload/start",
                                 .json = std::move(startBody),
                                 .headers = {{"X-Vell-Idempotency-Key", fileName}}});
    if (!started) return unexpected(started.error());
    auto start = decodeResumableStart(*started);
    if (!start) return unexpected(APIError::decoding("resumable start: not a start record"));
    if (start->recordingId && start->status == "done") {
        logger().info(fileName + ": already uploaded as " + *start->recordingId);
        return *start->recordingId;
    }
    long long offset = start->bytesReceived;
    if (offset < 0 || offset > totalBytes) return unexpected(APIError::decoding("invalid resumable offset"));
    report(progress, offset, totalBytes);

    const std::string partPath = "api/recordings/upload/" + start->uploadId + "/part";
    // The furthest offset the service has confirmed; where it stood when progress was last
    // judged, and the answers since then. Progress is a part's worth past that mark.
    long long highWater = offset;
    long long mark = offset;
    int answersSinceMark = 0;
    auto stalled = [&](long long confirmed) {
        highWater = std::max(highWater, confirmed);
        if (highWater - mark >= std::min(kUploadChunkBytes, totalBytes - mark)) {
            mark = highWater;
            answersSinceMark = 0;
            return false;
        }
        return ++answersSinceMark >= kMaxStalledResyncs;
    };
    while (offset < totalBytes) {
        long long length = std::min(totalBytes - offset, kUploadChunkBytes);
        auto chunk = readAt(in.fd, offset, length);
        if (!chunk) return unexpected(UploadError::fileError(chunk.error()));
        if (chunk->empty() || static_cast<long long>(chunk->size()) != length) {
            return unexpected(APIError::decoding("recording source changed during upload"));
        }
        auto reply = client_.perform({.method = "PUT",
                                      .path = partPath,
                                      .headers = {{"Content-Type", mimeType}, {"X-Upload-Offset", std::to_string(offset)}},
                                      .body = std::move(*chunk),
                                      .idleSeconds = kPartTimeout,
                                      .onUpload = bytes ? std::function<void(long long)>([&bytes, offset, totalBytes](long long sent) {
                                          bytes(offset + sent, totalBytes);
                                      })
                                                        : std::function<void(long long)>()});
        if (!reply) return unexpected(reply.error());
        auto part = decodeResumablePart(reply->body);
        std::optional<long long> acknowledged;
        if (part) acknowledged = part->bytesReceived;
        if (reply->status == 409 && part) {
            if (part->error == "already_finalized" && part->recordingId) return *part->recordingId;
            if (acknowledged && *acknowledged >= 0 && *acknowledged <= totalBytes) {
                logger().info(fileName + ": service holds " + std::to_string(*acknowledged) + " bytes, not " +
                              std::to_string(offset));
                // A service that keeps naming an offset it never gets (far) past would have
                // parts sent for ever: after a few such answers the call ends and the
                // caller's backoff decides when to try again.
                if (stalled(*acknowledged)) {
                    logger().error(fileName + ": " + std::to_string(kMaxStalledResyncs) +
                                   " answers in a row without a part's worth of progress past " + std::to_string(mark) +
                                   " bytes; giving up for now");
                    return unexpected(APIError::http(409, part->error ? part->error : std::optional<std::string>(
                                                                                          "offset_mismatch"),
                                                     std::nullopt));
                }
                offset = *acknowledged;
                report(progress, offset, totalBytes);
                continue;
            }
        }
        auto validated = APIClient::validate(*reply);
        if (!validated) return unexpected(validated.error());
        if (!acknowledged || *acknowledged <= offset || *acknowledged > totalBytes) {
            return unexpected(APIError::decoding("invalid resumable acknowledgement"));
        }
        offset = *acknowledged;
        if (offset < totalBytes && stalled(offset)) {
            logger().error(fileName + ": " + std::to_string(kMaxStalledResyncs) +
                           " acknowledgements in a row without a part's worth of progress past " + std::to_string(mark) +
                           " bytes; giving up for now");
            return unexpected(APIError::http(409, std::string("offset_mismatch"), std::nullopt));
        }
        report(progress, offset, totalBytes);
    }

    ApiRequest finalize{.method = "POST", .path = "api/recordings/upload/" + start->uploadId + "/finalize"};
    if (auto window = captureMilliseconds(capture)) {
        finalize.json = Json{{"captureStartedAt", window->first}, {"captureEndedAt", window->second}};
    }
    auto created = client_.send(std::move(finalize));
    if (!created) return unexpected(created.error());
    auto id = decodeCreatedID(*created);
    if (!id) return unexpected(APIError::decoding("finalize: not a created record"));
    return *id;
}

Expected<std::string, UploadError> RecordingUploads::uploadMultipart(const std::filesystem::path& file,
                                                                     const std::optional<std::string>& summaryPromptID,
                                                                     const std::optional<CaptureWindow>& capture) const {
    auto builder = MultipartBuilder::create();
    if (!builder) return unexpected(UploadError::fileError(builder.error(), true));
    auto& body = **builder;
    std::error_code e = body.addFile("audio", file.filename().string(), mimeTypeFor(file), file);
    if (e) return unexpected(UploadError::fileError(e));
    if (summaryPromptID) e = body.addField("summary_prompt_id", *summaryPromptID);
    if (auto window = captureMilliseconds(capture); window && !e) {
        e = body.addField("capture_started_at", std::to_string(window->first));
        if (!e) e = body.addField("capture_ended_at", std::to_string(window->second));
    }
    if (!e) e = body.finish();
    if (e) return unexpected(UploadError::fileError(e, true));
    auto created = client_.send({.method = "POST",
                                 .path = "api/recordings",
                                 .headers = {{"Content-Type", "multipart/form-data; boundary=" + body.boundary()}},
                                 .bodyFile = body.url()});
    // The builder (and its temporary file) goes away on every path out of here.
    if (!created) return unexpected(created.error());
    auto id = decodeCreatedID(*created);
    if (!id) return unexpected(APIError::decoding("multipart upload: not a created record"));
    return *id;
}

Expected<Unit, UploadError> RecordingUploads::uploadLiveChunk(const std::string& sessionID,
                                                              const std::filesystem::path& file,
                                                              const std::optional<LiveChunkPlace>& place) const {
    std::error_code ec;
    if (!std::filesystem::is_regular_file(file, ec)) {
        return unexpected(UploadError::fileError(ec ? ec : std::make_error_code(std::errc::no_such_file_or_directory)));
    }
    http::Headers headers = {{"Content-Type", "audio/mp4"}};
    if (place) {
        headers.emplace_back("X-Vell-Chunk-Index", std::to_string(place->index));
        headers.emplace_back("X-Vell-Chunk-Start-Ms", std::to_string(place->startMs));
        if (!place->sides.empty()) headers.emplace_back("X-Vell-Sides", place->sides);
    }
    auto reply = client_.send({.method = "POST",
                               .path = "api/recordings/live/" + sessionID + "/chunk",
                               .headers = std::move(headers),
                               .bodyFile = file});
    if (!reply) return unexpected(reply.error());
    return Unit{};
}

}  // namespace vell::service
