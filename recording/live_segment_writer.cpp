#include "recording/live_segment_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <regex>
#include <fstream>
#include <thread>

#include "base/log.h"
#include "base/private_folder.h"
#include "base/runtime.h"

namespace vell::recording {

namespace {

const log::Logger& logger() {
    static const log::Logger instance("LiveSegments");
    return instance;
}

std::uint64_t bigEndian(const unsigned char* bytes, int count) {
    std::uint64_t value = 0;
    for (int i = 0; i < count; ++i) value = (value << 8) | bytes[i];
    return value;
}

}  // namespace

bool hasTopLevelMoov(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return false;
    in.seekg(0, std::ios::end);
    const auto length = static_cast<std::uint64_t>(std::max<std::streamoff>(0, in.tellg()));
    std::uint64_t offset = 0;
    while (offset + 8 <= length) {
        std::array<unsigned char, 16> header{};
        in.seekg(static_cast<std::streamoff>(offset));
        if (!in.read(reinterpret_cast<char*>(header.data()), 8)) return false;
        std::uint64_t size = bigEndian(header.data(), 4);
        std::uint64_t headerSize = 8;
        if (size == 1) {
            if (offset + 16 > length || !in.read(reinterpret_cast<char*>(header.data() + 8), 8)) return false;
            size = bigEndian(header.data() + 8, 8);
            headerSize = 16;
        } else if (size == 0) {
            size = length - offset;
        }
        if (std::equal(header.begin() + 4, header.begin() + 8, "moov")) return true;
        if (size < headerSize || size > length - offset) return false;
        offset += size;
    }
    return false;
}

LiveSegmentWriter::LiveSegmentWriter(Options options)
    : writerFactory_(options.writerFactory ? std::move(options.writerFactory) : media::defaultAacWriterFactory()),
      directory_(std::move(options.directory)),
      mainExecutor_(options.mainExecutor),
      sealTimeout_(options.sealTimeoutSeconds),
      sealPoll_(options.sealPollSeconds),
      segmentFrames_(options.segmentFrames > 0 ? options.segmentFrames : kSegmentFrames) {}

LiveSegmentWriter::~LiveSegmentWriter() {
    std::lock_guard lock(lock_);
    if (segmentFile_) {
        (void)segmentFile_->finish();
        segmentFile_.reset();
    }
}

std::filesystem::path LiveSegmentWriter::directory() const {
    std::optional<std::filesystem::path> base;
    if (!directory_.empty()) {
        base = directory_;
    } else if (auto temporary = files::temporaryFolder()) {
        base = *temporary / "live-segments";
    }
    if (!base) return {};
    std::string refusal;
    auto folder = files::privateFolder(*base, refusal);
    if (!folder) {
        logger().error("[live-segments] no segments are written: " + refusal);
        return {};
    }
    return *folder;
}

std::filesystem::path LiveSegmentWriter::segmentPath(int index) const {
    char number[16];
    std::snprintf(number, sizeof number, "%06d", index);
    return folder_ / ("seg_" + sessionToken_ + "_" + number + ".m4a");
}

void LiveSegmentWriter::begin(const std::string& sessionToken) {
    std::optional<std::filesystem::path> previous;
    {
        std::lock_guard lock(lock_);
        previous = closeSegment();  // a writer begun twice hands over what it had
        folder_ = directory();
        sessionToken_ = sessionToken;
        totalFrames_ = 0;
        segmentStartFrames_ = 0;
        segmentIndex_ = 0;
        active_ = true;
        openSegment();
    }
    if (previous) handOver(*previous, true);
}

void LiveSegmentWriter::openSegment() {
    const auto path = segmentPath(segmentIndex_);
    segmentStartFrames_ = totalFrames_;
    segmentURL_.reset();
    if (folder_.empty()) return;
    // Made here, new and never through a link: a file that is already there is not ours.
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        logger().error("[live-segments] cannot create segment " + path.filename().string() + ": " + std::strerror(errno));
        return;
    }
    ::close(fd);
    auto opened = writerFactory_(path, media::AacSettings{media::AacContainer::mpeg4, kSampleRate, kChannels, kBitRate});
    if (!opened) {
        // The recording itself goes on; the next segment is tried normally.
        logger().error("[live-segments] cannot create segment: " + opened.error());
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
        return;
    }
    segmentFile_ = std::move(*opened);
    segmentURL_ = path;
}

std::optional<std::filesystem::path> LiveSegmentWriter::closeSegment() {
    if (!segmentFile_) return std::nullopt;
    (void)segmentFile_->finish();
    segmentFile_.reset();
    auto closed = segmentURL_;
    segmentURL_.reset();
    if (closed) pendingHandoffs_.insert(closed->filename().string());
    return closed;
}

void LiveSegmentWriter::append(audio::PcmBufferPtr buffer) {
    if (!buffer) return;
    std::optional<std::filesystem::path> closed;
    {
        std::lock_guard lock(lock_);
        if (!active_) return;
        const std::size_t frames = buffer->frames();
        if (segmentFile_ && frames > 0) {
            std::vector<const float*> planes;
            for (const auto& plane : buffer->channels) planes.push_back(plane.data());
            (void)segmentFile_->write(planes.data(), buffer->channelCount(), frames,
                                      static_cast<int>(buffer->sampleRate));  // a write error is not the recording's
        }
        // Frames count even while no segment could be created, so the next one is tried.
        totalFrames_ += static_cast<std::int64_t>(frames);
        if (totalFrames_ - segmentStartFrames_ >= segmentFrames_) {
            closed = closeSegment();
            ++segmentIndex_;
            openSegment();
        }
    }
    if (closed) handOver(*closed, false);
}

void LiveSegmentWriter::finish() {
    std::optional<std::filesystem::path> closed;
    bool empty = false;
    {
        std::lock_guard lock(lock_);
        if (!active_) return;
        active_ = false;
        empty = totalFrames_ == segmentStartFrames_;
        closed = closeSegment();
        if (closed && empty) pendingHandoffs_.erase(closed->filename().string());
    }
    if (!closed) return;
    if (empty) {
        // Nothing arrived since the last rotation: there is nothing to hand over.
        std::error_code ignored;
        std::filesystem::remove(*closed, ignored);
        return;
    }
    handOver(*closed, true);
}

void LiveSegmentWriter::handOver(std::filesystem::path file, bool final) {
    sealQueue_.post([this, file = std::move(file), final] {
        const auto start = std::chrono::steady_clock::now();
        const auto deadline = start + std::chrono::duration<double>(sealTimeout_);
        bool sealed = false;
        while (true) {
            if (hasTopLevelMoov(file)) {
                sealed = true;
                break;
            }
            if (std::chrono::steady_clock::now() >= deadline) break;
            std::this_thread::sleep_for(std::chrono::duration<double>(sealPoll_));
        }
        const std::string name = file.filename().string();
        if (!sealed) {
            logger().info(std::string(final ? "[live-segments] final segment never sealed (no moov atom), dropped: "
                                             : "[live-segments] segment never sealed (no moov atom), dropped: ") +
                          name);
            std::lock_guard lock(lock_);
            pendingHandoffs_.erase(name);
            return;
        }
        auto deliver = [this, file] {
            if (onSegment) onSegment(file);
        };
        if (mainExecutor_) {
            mainExecutor_->post(std::move(deliver));
        } else {
            runtime::main().post(std::move(deliver));
        }
    });
}

void LiveSegmentWriter::release(const std::filesystem::path& segment) {
    std::lock_guard lock(lock_);
    pendingHandoffs_.erase(segment.filename().string());
    std::error_code ignored;
    std::filesystem::remove(segment, ignored);
}

void LiveSegmentWriter::cleanUpStaleFiles() {
    const auto folder = directory();
    if (folder.empty()) return;
    static const std::regex kSegmentName("seg_[A-Za-z0-9-]{1,64}_[0-9]{6}\\.m4a");
    std::lock_guard lock(lock_);
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        const auto& path = entry.path();
        const auto name = path.filename().string();
        if (!std::regex_match(name, kSegmentName)) continue;
        std::error_code statusError;
        if (entry.symlink_status(statusError).type() != std::filesystem::file_type::regular || statusError) continue;
        if (pendingHandoffs_.contains(name)) continue;
        if (segmentURL_ && *segmentURL_ == path) continue;  // the segment being written now
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
    }
}

std::set<std::string> LiveSegmentWriter::pendingHandoffs() const {
    std::lock_guard lock(lock_);
    return pendingHandoffs_;
}

int LiveSegmentWriter::segmentIndex() const {
    std::lock_guard lock(lock_);
    return segmentIndex_;
}

std::int64_t LiveSegmentWriter::totalFrames() const {
    std::lock_guard lock(lock_);
    return totalFrames_;
}

}  // namespace vell::recording
