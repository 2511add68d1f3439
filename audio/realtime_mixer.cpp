#include "audio/realtime_mixer.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include <fmt/format.h>

#include "audio/errors.h"
#include "base/log.h"
#include "base/runtime.h"

namespace vell::audio {

namespace {
constexpr int kTargetChannels = 2;
const log::Logger kLog{"Mixer"};
}

RealtimeMixer::RealtimeMixer(std::filesystem::path file, double sampleRate, Options options)
    : requestedFile_(std::move(file)),
      sampleRate_(sampleRate),
      clock_(options.clock ? *options.clock : runtime::clock()),
      writerFactory_(options.writerFactory ? std::move(options.writerFactory) : media::defaultAacWriterFactory()),
      automaticTicks_(options.automaticTicks),
      keepToClock_(options.keepToClock.value_or(options.automaticTicks)),
      dropped_(options.dropped),
      queue_(options.automaticTicks ? std::make_unique<SerialQueue>(queues::kMixer) : nullptr) {
    if (options.echo) echo_ = std::make_unique<EchoCancelStage>(sampleRate, *options.echo);
    mic_.gain = kMicGain;
    system_.gain = kSystemGain;
}

RealtimeMixer::~RealtimeMixer() {
    std::unique_ptr<SerialQueue> queue;
    {
        std::lock_guard lock(postLock_);
        queue = std::move(queue_);
    }
    if (!queue) return;
    queue->sync([this] { flushTimer_.cancel(); });
    // Blocks already posted still run (the mixer is whole until the queue is gone); an
    // unfinished file is closed by its writer, losing only what was not yet mixed.
    queue.reset();
}

void RealtimeMixer::open() {
    std::string failure = "the mixer is gone";
    onMixer([&] {
        failure.clear();
        if (file_) return;
        const media::AacSettings adts{media::AacContainer::adts, static_cast<int>(sampleRate_), kTargetChannels, kBitRate};
        auto opened = writerFactory_(requestedFile_, adts);
        std::filesystem::path chosen = requestedFile_;
        if (!opened) {
            failure = opened.error();
            chosen = std::filesystem::path(requestedFile_).replace_extension("m4a");
            media::AacSettings mpeg4 = adts;
            mpeg4.container = media::AacContainer::mpeg4;
            opened = writerFactory_(chosen, mpeg4);
            if (!opened) failure += "; " + opened.error();
        }
        if (!opened) return;
        failure.clear();
        file_ = std::move(*opened);
        openedAt_ = clock_.uptime();
        written_ = 0;
        if (dropped_) dropped_->reset();
        {
            std::lock_guard lock(outputLock_);
            outputFile_ = chosen;
        }
        if (automaticTicks_) {
            flushTimer_ = queue_->repeat(kTickSeconds, [this] { mix(false); });
        }
    });
    if (!failure.empty()) throw MixerOpenError(failure);
}

std::filesystem::path RealtimeMixer::outputFile() const {
    std::lock_guard lock(outputLock_);
    return outputFile_.empty() ? requestedFile_ : outputFile_;
}

void RealtimeMixer::setSystemEnabled(bool enabled) {
    // Queued in line with the blocks: those that arrived before the change are judged by
    // the old setting, those after it by the new one.
    std::lock_guard lock(arrivalsLock_);
    if (!finished_) arrivals_.push_back(Arrival{nullptr, true, 0, enabled});
}

void RealtimeMixer::appendMicrophone(PcmBufferPtr buffer) { deliver(std::move(buffer), false); }

void RealtimeMixer::appendSystem(PcmBufferPtr buffer) { deliver(std::move(buffer), true); }

void RealtimeMixer::deliver(PcmBufferPtr buffer, bool isSystem) {
    if (!buffer) return;
    const double now = clock_.uptime();
    std::lock_guard lock(arrivalsLock_);
    if (finished_) return;
    arrivals_.push_back(Arrival{std::move(buffer), isSystem, now, false});
}

void RealtimeMixer::takeArrivals() {
    {
        std::lock_guard lock(arrivalsLock_);
        taking_.swap(arrivals_);
    }
    for (auto& arrival : taking_) {
        if (!arrival.buffer) {
            systemEnabled_ = arrival.enablesSystem;
            continue;
        }
        take(arrival.isSystem ? system_ : mic_, arrival.isSystem, arrival.buffer, arrival.at);
    }
    taking_.clear();
}

void RealtimeMixer::take(Stream& stream, bool isSystem, const PcmBufferPtr& buffer, double arrivedAt) {
    if (isSystem && !systemEnabled_) return;
    const std::size_t frames = buffer->frames();
    const int channels = buffer->channelCount();
    if (frames == 0 || channels == 0 || buffer->sampleRate <= 0) return;

    // Planes at the target rate: the block itself when only mono duplication is needed,
    // else the stream's converter (kept while the input format stays the same).
    const std::vector<float>* left = nullptr;
    const std::vector<float>* right = nullptr;
    if (buffer->sampleRate == sampleRate_ && channels <= kTargetChannels) {
        left = &buffer->channels[0];
        right = channels > 1 ? &buffer->channels[1] : left;
    } else {
        const int inRate = static_cast<int>(std::lround(buffer->sampleRate));
        if (!stream.converter || stream.converter->inRate() != inRate || stream.converter->inChannels() != channels) {
            auto made = media::Resampler::create(inRate, channels, static_cast<int>(sampleRate_), kTargetChannels);
            if (!made) {
                stream.converter.reset();
                return;
            }
            stream.converter = std::move(*made);
        }
        planes_.clear();
        for (const auto& plane : buffer->channels) planes_.push_back(plane.data());
        if (!stream.converter->convert(planes_.data(), frames, scratch_)) return;
        left = &scratch_[0];
        right = &scratch_[1];
    }

    stream.lastArrival = arrivedAt;

    if (keepToClock_ && file_) {
        // A stream cannot hold more than the time since open: beyond a small allowance the
        // rest is a backlog let go at once, and its oldest part goes, so that what is heard
        // now lands where it belongs.
        const std::size_t count = left->size();
        const std::size_t due = framesSinceOpen(arrivedAt);
        const std::size_t reached = position(stream) + count;
        const auto stallFrames = static_cast<std::size_t>(kStallSeconds * sampleRate_);
        const Stream& other = isSystem ? mic_ : system_;
        const bool otherCarries = (isSystem || systemEnabled_) && arrivedAt - other.lastArrival <= kStallSeconds;
        if (!otherCarries && reached + stallFrames < due) {
            // Nothing carried the file through a gap this stream will not fill (a device resumed,
            // a source that started late or had rendered ahead): silence stands for the gap, so
            // what is heard now lands at its time and the file stays as long as the recording.
            logDropped(stream, isSystem);
            const std::size_t gap = due - reached;
            for (int c = 0; c < kTargetChannels; ++c) {
                const auto& side = c == 0 ? *left : *right;
                trimmed_[c].assign(gap, 0.0f);
                trimmed_[c].insert(trimmed_[c].end(), side.begin(), side.end());
            }
            left = &trimmed_[0];
            right = &trimmed_[1];
        } else if (reached <= due + static_cast<std::size_t>(kAheadSeconds * sampleRate_)) {
            logDropped(stream, isSystem);  // a burst before this block is over
        } else {
            const std::size_t excess = reached - due;
            const std::size_t leftover = dropOldest(stream, excess);
            const std::size_t skip = std::min(leftover, count);
            countDropped(stream, isSystem, excess - leftover + skip);
            if (skip == count) return;
            if (skip > 0) {
                for (int c = 0; c < kTargetChannels; ++c) {
                    const auto& side = c == 0 ? *left : *right;
                    trimmed_[c].assign(side.begin() + static_cast<std::ptrdiff_t>(skip), side.end());
                }
                left = &trimmed_[0];
                right = &trimmed_[1];
            }
        }
    }

    if (!isSystem && echo_) {
        echo_->appendMicrophone(*left, *right, channels);  // reaches mic_.samples at the tick
        return;
    }

    if (isSystem && onSystemBuffer) {
        auto converted = std::make_shared<PcmBuffer>();
        converted->sampleRate = sampleRate_;
        converted->hostTime = buffer->hostTime;
        converted->channels = {*left, *right};
        onSystemBuffer(std::move(converted));
    }

    const std::array<const std::vector<float>*, 2> sides{left, right};
    for (int c = 0; c < kTargetChannels; ++c) {
        auto& list = stream.samples[c];
        const auto& source = *sides[c];
        const std::size_t start = list.size();
        list.resize(start + source.size());
        for (std::size_t i = 0; i < source.size(); ++i) list[start + i] = source[i] * stream.gain;
    }
}

void RealtimeMixer::tick(bool force) {
    onMixer([this, force] { mix(force); });
}

void RealtimeMixer::drain() {
    onMixer([this] { takeArrivals(); });
}

void RealtimeMixer::onMixer(const Task& work) {
    if (!automaticTicks_) {
        std::lock_guard lock(drivenLock_);
        work();
        return;
    }
    std::unique_lock lock(postLock_);
    if (!queue_) return;
    SerialQueue& queue = *queue_;
    lock.unlock();
    queue.sync(work);
}

void RealtimeMixer::mix(bool force) {
    takeArrivals();
    if (!file_) return;
    const double now = clock_.uptime();
    const auto oneSecond = static_cast<std::size_t>(sampleRate_);
    if (echo_) {
        // The microphone reaches its list in cleaned frames; those whose system audio is not
        // coming (stalled, or more than a second behind) are cleaned against silence.
        using Flush = EchoCancelStage::Flush;
        Flush flush = force ? Flush::everything : Flush::none;
        const std::size_t micAll = mic_.samples[0].size() + echo_->pending();
        if (!force && (now - system_.lastArrival > kStallSeconds || micAll > system_.samples[0].size() + oneSecond)) {
            flush = Flush::beyondReference;
        }
        echo_->advance(mic_.samples, mic_.gain, system_.samples, systemEnabled_, flush);
    }
    // The file never runs ahead of the clock: what a stream holds beyond it waits (and its
    // oldest part is dropped as more comes, or at the end).
    std::size_t room = SIZE_MAX;
    if (keepToClock_) {
        // A burst is over once its stream goes quiet: holding the file for it any longer would
        // leave the other stream unwritten, or the file short, for as long as the quiet lasts.
        for (Stream* stream : {&mic_, &system_}) {
            if (stream->droppedRun > 0 && now - stream->lastArrival > kStallSeconds) logDropped(*stream, stream == &system_);
        }
    }
    if (keepToClock_ && !force && (mic_.droppedRun > 0 || system_.droppedRun > 0)) {
        return;  // a backlog is still coming: only its newest part is worth writing
    }
    if (keepToClock_) {
        const std::size_t limit = framesSinceOpen(now) + static_cast<std::size_t>(kAheadSeconds * sampleRate_);
        if (force) {
            for (Stream* stream : {&mic_, &system_}) {
                const bool isSystem = stream == &system_;
                if (isSystem && !systemEnabled_) continue;
                const std::size_t at = position(*stream);
                if (at > limit) countDropped(*stream, isSystem, at - limit - dropOldest(*stream, at - limit));
                logDropped(*stream, isSystem);
            }
        }
        room = limit > written_ ? limit - written_ : 0;
    }
    const std::size_t m = std::min(mic_.samples[0].size(), room);
    const std::size_t s = systemEnabled_ ? std::min(system_.samples[0].size(), room) : 0;
    const auto chunk = static_cast<std::size_t>(sampleRate_ * 0.05);

    std::size_t n = 0;
    if (!systemEnabled_) {
        n = m;
    } else if (force) {
        n = std::max(m, s);
    } else if (std::min(m, s) >= chunk) {
        n = std::min(m, s);
    } else if ((m > s ? m - s : s - m) > oneSecond) {
        n = std::max(m, s);  // drifted apart: drain both, the shorter padded with silence
    } else if (now - system_.lastArrival > kStallSeconds && m >= chunk) {
        n = m;
    } else if (now - mic_.lastArrival > kStallSeconds && s >= chunk) {
        n = s;
    } else {
        return;
    }
    if (n == 0) return;

    auto mixed = std::make_shared<PcmBuffer>();
    mixed->sampleRate = sampleRate_;
    mixed->channels.assign(kTargetChannels, std::vector<float>(n, 0.0f));
    for (int c = 0; c < kTargetChannels; ++c) {
        float* out = mixed->channels[c].data();
        const auto& micList = mic_.samples[c];
        const auto& sysList = system_.samples[c];
        const std::size_t micCount = std::min(n, micList.size());
        const std::size_t sysCount = systemEnabled_ ? std::min(n, sysList.size()) : 0;
        for (std::size_t i = 0; i < micCount; ++i) out[i] = micList[i];
        for (std::size_t i = 0; i < sysCount; ++i) out[i] += sysList[i];
        for (std::size_t i = 0; i < n; ++i) out[i] = std::clamp(out[i], -1.0f, 1.0f);
    }
    for (Stream* stream : {&mic_, &system_}) {
        for (auto& list : stream->samples) list.erase(list.begin(), list.begin() + static_cast<std::ptrdiff_t>(std::min(n, list.size())));
    }

    const float* planes[kTargetChannels] = {mixed->channels[0].data(), mixed->channels[1].data()};
    written_ += n;
    auto written = file_->write(planes, kTargetChannels, n, static_cast<int>(sampleRate_));
    if (written) written = file_->syncToDisk();
    if (!written) reportWriteError(written.error());

    if (onMixedBuffer) onMixedBuffer(std::move(mixed));
}

std::size_t RealtimeMixer::position(const Stream& stream) const {
    std::size_t waiting = stream.samples[0].size();
    if (&stream == &mic_ && echo_) waiting += echo_->pending();
    return written_ + waiting;
}

std::size_t RealtimeMixer::framesSinceOpen(double at) const {
    return at > openedAt_ ? static_cast<std::size_t>((at - openedAt_) * sampleRate_) : 0;
}

std::size_t RealtimeMixer::dropOldest(Stream& stream, std::size_t frames) {
    const std::size_t count = std::min(frames, stream.samples[0].size());
    for (auto& list : stream.samples) list.erase(list.begin(), list.begin() + static_cast<std::ptrdiff_t>(count));
    return frames - count;
}

void RealtimeMixer::countDropped(Stream& stream, bool isSystem, std::size_t frames) {
    if (frames == 0) return;
    stream.droppedRun += frames;
    if (dropped_) dropped_->add(isSystem, double(frames) / sampleRate_);
}

void RealtimeMixer::logDropped(Stream& stream, bool isSystem) {
    if (stream.droppedRun == 0) return;
    kLog.info(fmt::format("the {} delivered faster than real time: dropped its oldest {:.2f} s",
                          isSystem ? "system audio" : "microphone", double(stream.droppedRun) / sampleRate_));
    stream.droppedRun = 0;
}

void RealtimeMixer::reportWriteError(const std::string& error) {
    if (terminalWriteErrorReported_) return;
    terminalWriteErrorReported_ = true;
    if (onWriteError) onWriteError(error);
}

void RealtimeMixer::finish() {
    onMixer([this] {
        flushTimer_.cancel();
        {
            std::lock_guard arrivals(arrivalsLock_);
            finished_ = true;
        }
        mix(true);
        if (file_) (void)file_->finish();  // closing problems at the end are not reported
        file_.reset();
        echo_.reset();
        mic_ = Stream{};
        mic_.gain = kMicGain;
        system_ = Stream{};
        system_.gain = kSystemGain;
    });
}

}  // namespace vell::audio
