#include "insurance/insurance_chunk_writer.h"

#include <cmath>

#include "audio/adts_frames.h"
#include "base/log.h"
#include "base/runtime.h"

namespace vell::insurance {

namespace {
const log::Logger kLog("InsuranceChunkWriter");
// After a failed write a new chunk is tried this often, not for every buffer.
constexpr auto kRetryAfterFailure = std::chrono::seconds(5);
}

double firstChannelRMS(const audio::PcmBuffer& buffer) {
    if (buffer.channels.empty() || buffer.channels.front().empty()) return 0;
    double sum = 0;
    for (float s : buffer.channels.front()) sum += double(s) * double(s);
    return std::sqrt(sum / double(buffer.channels.front().size()));
}

int activityPercent(int voicedBuffers, int buffers) {
    if (buffers < 1) return 0;
    return static_cast<int>(std::lround(double(voicedBuffers) / double(buffers) * 100.0));
}

InsuranceChunkWriter::InsuranceChunkWriter(InsuranceBufferStore& store, media::AacWriterFactory factory)
    : store_(store), factory_(factory ? std::move(factory) : media::defaultAacWriterFactory()) {}

InsuranceChunkWriter::~InsuranceChunkWriter() = default;

void InsuranceChunkWriter::append(const audio::PcmBufferPtr& buffer) {
    if (!buffer || buffer->frames() == 0) return;
    queue_.sync([&] { write(*buffer); });
}

void InsuranceChunkWriter::seal() {
    queue_.sync([this] { sealOnQueue(); });
}

std::optional<std::filesystem::path> InsuranceChunkWriter::activeURL() const {
    std::lock_guard lock(stateLock_);
    return activeURL_;
}

std::optional<WallTime> InsuranceChunkWriter::lastBufferAt() const {
    std::lock_guard lock(stateLock_);
    return lastBufferAt_;
}

void InsuranceChunkWriter::clearLastBufferAt() {
    std::lock_guard lock(stateLock_);
    lastBufferAt_.reset();
}

std::optional<std::string> InsuranceChunkWriter::writeFailure() const {
    std::lock_guard lock(stateLock_);
    return writeFailure_;
}

void InsuranceChunkWriter::setWriteFailure(std::optional<std::string> failure) {
    std::lock_guard lock(stateLock_);
    if (!failure && writeFailure_) kLog.info("insurance chunks are written again");
    writeFailure_ = std::move(failure);
    failedAt_ = writeFailure_ ? std::optional<WallTime>(runtime::clock().now()) : std::nullopt;
}

std::optional<int> InsuranceChunkWriter::encoderIndex() {
    return queue_.syncResult([this] { return encoderIndex_; });
}

void InsuranceChunkWriter::setActive(std::optional<std::filesystem::path> url) {
    std::lock_guard lock(stateLock_);
    activeURL_ = std::move(url);
}

void InsuranceChunkWriter::write(const audio::PcmBuffer& buffer) {
    {
        std::lock_guard lock(stateLock_);
        lastBufferAt_ = runtime::clock().now();
    }
    auto* file = openFile();
    if (!file) return;
    const int rate = file->processingSampleRate();
    auto converted = convert(buffer, rate);
    if (!converted) return;
    const float* plane = converted->data();
    if (auto ok = file->write(&plane, 1, converted->size(), rate); !ok) {
        kLog.error("insurance chunk write failed: " + ok.error());
        keepWritten();
        setWriteFailure(ok.error());
        return;
    }
    if (writeFailure()) setWriteFailure(std::nullopt);
    chunkFrames_ += static_cast<std::int64_t>(converted->size());
    ++buffers_;
    double sum = 0;
    for (float s : *converted) sum += double(s) * double(s);
    if (std::sqrt(sum / double(converted->size())) >= kVoicedRMS) ++voicedBuffers_;
    if (double(chunkFrames_) >= double(rate) * kChunkSeconds) rollOver();
}

// A full chunk hands the running encoder on to the next file instead of finishing it: a new
// stream would start with the encoder's priming and the old one end on a padded frame, an
// 80 ms hole at 16 kHz wherever two chunks are played end to end. The next chunk therefore
// opens with the little the encoder still held (under two AAC frames).
void InsuranceChunkWriter::rollOver() {
    const WallTime now = runtime::clock().now();
    const auto next = store_.openChunkURL(now);
    if (auto moved = file_->continueInto(next); !moved) {
        kLog.debug("insurance chunk closes alone: " + moved.error());
        sealOnQueue();
        return;
    }
    const auto sealed = *fileURL_;
    const int voiced = voicedBuffers_, total = buffers_;
    fileURL_ = next;
    chunkFrames_ = 0;
    voicedBuffers_ = 0;
    buffers_ = 0;
    setActive(next);
    if (!store_.seal(sealed, now, activityPercent(voiced, total))) {
        std::error_code ec;
        std::filesystem::remove(sealed, ec);
    }
    if (onChunkSealed) runtime::main().post(onChunkSealed);
}

media::AacWriter* InsuranceChunkWriter::openFile() {
    if (file_) return file_.get();
    const WallTime start = runtime::clock().now();
    {
        std::lock_guard lock(stateLock_);
        if (failedAt_ && start - *failedAt_ < kRetryAfterFailure) return nullptr;
    }
    const auto url = store_.openChunkURL(start);
    std::vector<int> candidates;
    if (encoderIndex_) candidates.push_back(*encoderIndex_);
    else
        for (int i = 0; i < int(kEncoderRows.size()); ++i) candidates.push_back(i);
    for (int index : candidates) {
        const auto& row = kEncoderRows[static_cast<std::size_t>(index)];
        auto opened = factory_(url, media::AacSettings{media::AacContainer::adts, row.sampleRate, 1, row.bitRate});
        if (opened) {
            encoderIndex_ = index;
            file_ = std::move(*opened);
            fileURL_ = url;
            chunkFrames_ = 0;
            voicedBuffers_ = 0;
            buffers_ = 0;
            setActive(url);
            return file_.get();
        }
        kLog.debug("insurance encoder row " + std::to_string(index) + " failed: " + opened.error());
        std::error_code ec;
        std::filesystem::remove(url, ec);
        // A full disk refuses every row alike; the row stays known for when space returns.
        if (writeFailure()) {
            setWriteFailure(opened.error());
            return nullptr;
        }
    }
    encoderIndex_.reset();
    return nullptr;
}

std::optional<std::vector<float>> InsuranceChunkWriter::convert(const audio::PcmBuffer& buffer, int outRate) {
    const int inRate = static_cast<int>(std::lround(buffer.sampleRate));
    const int inChannels = buffer.channelCount();
    if (inRate <= 0 || inChannels < 1) return std::nullopt;
    if (inRate == outRate && inChannels == 1) return buffer.channels.front();
    if (!converter_ || converter_->inRate() != inRate || converter_->inChannels() != inChannels ||
        converter_->outRate() != outRate) {
        converter_.reset();
        auto made = media::Resampler::create(inRate, inChannels, outRate, 1);
        if (!made) {
            kLog.error("no converter for the insurance microphone: " + made.error());
            return std::nullopt;
        }
        converter_ = std::move(*made);
    }
    std::vector<const float*> planes;
    planes.reserve(buffer.channels.size());
    for (const auto& c : buffer.channels) planes.push_back(c.data());
    std::vector<std::vector<float>> out;
    if (!converter_->convert(planes.data(), buffer.frames(), out) || out.empty() || out.front().empty())
        return std::nullopt;
    return std::move(out.front());
}

void InsuranceChunkWriter::sealOnQueue() {
    if (!fileURL_) return;
    const int voiced = voicedBuffers_, total = buffers_;
    if (file_) {
        if (auto ok = file_->finish(); !ok) kLog.error("insurance chunk did not finish cleanly: " + ok.error());
        file_.reset();
    }
    const auto url = *fileURL_;
    fileURL_.reset();
    setActive(std::nullopt);
    if (!store_.seal(url, runtime::clock().now(), activityPercent(voiced, total))) {
        std::error_code ec;
        std::filesystem::remove(url, ec);
    }
    if (onChunkSealed) runtime::main().post(onChunkSealed);
}

void InsuranceChunkWriter::keepWritten() {
    file_.reset();
    std::optional<std::filesystem::path> url = std::move(fileURL_);
    fileURL_.reset();
    setActive(std::nullopt);
    if (!url) return;
    // A full disk stops the chunk mid-frame: what reached the disk before is buffered
    // audio like any other, cut after its last whole frame and sealed.
    std::error_code ec;
    const auto extent = media::trimAdtsFile(*url, ec);
    if (!ec && extent.frames > 0 && store_.seal(*url, runtime::clock().now(), activityPercent(voicedBuffers_, buffers_))) {
        kLog.info("kept " + std::to_string(extent.seconds()) + " s written before the failure");
        if (onChunkSealed) runtime::main().post(onChunkSealed);
        return;
    }
    std::filesystem::remove(*url, ec);
}

}  // namespace vell::insurance
