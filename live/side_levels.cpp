#include "live/side_levels.h"

#include <algorithm>
#include <cmath>

#include "base/files.h"

namespace vell::live {

using nlohmann::json;

namespace {
int decibels(double meanSquare) {
    if (meanSquare <= 0) return kSilentDb;
    return std::clamp(static_cast<int>(std::lround(10 * std::log10(meanSquare))), kSilentDb, 0);
}

std::string joined(const std::vector<int>& values) {
    std::string out;
    for (size_t i = 0; i < values.size(); ++i) {
        if (i) out += ',';
        out += std::to_string(values[i]);
    }
    return out;
}
}  // namespace

json SideLevels::toJson() const { return {{"windowMs", windowMs}, {"microphone", microphone}, {"system", system}}; }

std::optional<SideLevels> SideLevels::fromJson(const json& j) {
    try {
        SideLevels s;
        s.windowMs = j.at("windowMs").get<int>();
        s.microphone = j.at("microphone").get<std::vector<int>>();
        s.system = j.at("system").get<std::vector<int>>();
        if (s.windowMs <= 0) return std::nullopt;
        return s;
    } catch (const json::exception&) {
        return std::nullopt;
    }
}

std::string SideLevels::headerValue() const {
    return std::to_string(windowMs) + ";" + joined(microphone) + ";" + joined(system);
}

std::filesystem::path sideLevelsFile(const std::filesystem::path& recordingFile) {
    auto file = recordingFile;
    file.replace_extension(".sides.json");
    return file;
}

void SideLevelMeter::reset() {
    std::lock_guard lock(mutex_);
    microphone_ = {};
    system_ = {};
}

void SideLevelMeter::addMicrophone(const audio::PcmBuffer& buffer) {
    std::lock_guard lock(mutex_);
    add(microphone_, buffer);
}

void SideLevelMeter::addSystem(const audio::PcmBuffer& buffer) {
    std::lock_guard lock(mutex_);
    add(system_, buffer);
}

void SideLevelMeter::add(Side& side, const audio::PcmBuffer& buffer) {
    if (buffer.sampleRate <= 0 || buffer.channels.empty()) return;
    const auto perWindow = static_cast<long long>(std::lround(buffer.sampleRate * kSideWindowMs / 1000.0));
    const size_t n = buffer.frames();
    const size_t channels = buffer.channels.size();
    for (size_t i = 0; i < n; ++i) {
        double square = 0;
        for (const auto& plane : buffer.channels) square += double(plane[i]) * plane[i];
        side.sum += square / double(channels);
        if (++side.frames >= perWindow) {
            side.windows.push_back(decibels(side.sum / double(side.frames)));
            side.sum = 0;
            side.frames = 0;
        }
    }
}

SideLevels SideLevelMeter::range(long long fromMs, long long toMs) const {
    std::lock_guard lock(mutex_);
    SideLevels out;
    const auto first = static_cast<size_t>(std::max(0LL, fromMs) / kSideWindowMs);
    const auto last = static_cast<size_t>(std::max(0LL, toMs) / kSideWindowMs);
    const size_t available = std::max(microphone_.windows.size(), system_.windows.size());
    for (size_t i = first; i < std::min(last, available); ++i) {
        out.microphone.push_back(i < microphone_.windows.size() ? microphone_.windows[i] : kSilentDb);
        out.system.push_back(i < system_.windows.size() ? system_.windows[i] : kSilentDb);
    }
    return out;
}

SideLevels SideLevelMeter::all() const { return range(0, 1LL << 50); }

SideMeteringMixer::SideMeteringMixer(std::unique_ptr<audio::RecordingMixer> inner, std::shared_ptr<SideLevelMeter> meter)
    : inner_(std::move(inner)), meter_(std::move(meter)) {
    inner_->onMixedBuffer = [this](audio::PcmBufferPtr b) {
        if (onMixedBuffer) onMixedBuffer(std::move(b));
    };
    inner_->onSystemBuffer = [this](audio::PcmBufferPtr b) {
        if (onSystemBuffer) onSystemBuffer(std::move(b));
    };
    inner_->onWriteError = [this](const std::string& e) {
        if (onWriteError) onWriteError(e);
    };
}

void SideMeteringMixer::open() {
    meter_->reset();
    inner_->open();
}

void SideMeteringMixer::appendMicrophone(audio::PcmBufferPtr buffer) {
    if (buffer) meter_->addMicrophone(*buffer);
    inner_->appendMicrophone(std::move(buffer));
}

void SideMeteringMixer::appendSystem(audio::PcmBufferPtr buffer) {
    if (buffer) meter_->addSystem(*buffer);
    inner_->appendSystem(std::move(buffer));
}

void SideMeteringMixer::finish() {
    inner_->finish();
    const auto levels = meter_->all();
    if (levels.microphone.empty()) return;
    std::error_code ignored;  // without levels the service hears one speaker; nothing else changes
    files::writeAtomically(sideLevelsFile(inner_->outputFile()), levels.toJson().dump(), ignored);
}

}  // namespace vell::live
