#pragma once
// Fault-injecting stand-ins for the audio parts of a recording.
#include <atomic>
#include <fstream>
#include <mutex>
#include <optional>

#include "audio/errors.h"
#include "audio/aac_writer.h"
#include "audio/ports.h"
#include "recording/recorder_parts.h"

namespace vell::recording::fakes {

class Microphone final : public audio::MicrophoneInput {
public:
    void start(const audio::MicrophoneTarget& target, audio::BufferHandler handler, std::function<void()> onDeviceChange) override {
        std::lock_guard lock(mutex);
        ++starts;
        lastTarget = target;
        if (failNext) {
            auto fail = std::move(failNext);
            failNext = nullptr;
            fail();
        }
        this->handler = std::move(handler);
        this->onDeviceChange = std::move(onDeviceChange);
        running = true;
    }
    void stop() override {
        std::lock_guard lock(mutex);
        ++stops;
        running = false;
    }
    bool isRunning() const override { return running; }
    bool fellBackToDefault() const override { return false; }

    std::mutex mutex;
    int starts = 0;
    int stops = 0;
    std::atomic<bool> running{false};
    audio::MicrophoneTarget lastTarget;
    std::function<void()> failNext;  // throws from the next start
    audio::BufferHandler handler;
    std::function<void()> onDeviceChange;
};

class Chooser final : public audio::MicrophoneChooser {
public:
    audio::MicrophoneTarget recordingTarget() override { return {std::string("usb-mic"), 7u}; }
    audio::MicrophoneTarget insuranceTarget() override { return {}; }
};

class SystemAudio final : public audio::SystemAudioSource {
public:
    void start(audio::BufferHandler) override {
        if (fail) throw audio::CoreAudioError(-1, "pa_stream_connect_record");
        running = true;
    }
    void stop() override {
        running = false;
        ++stops;
    }
    bool isRunning() const override { return running; }
    bool fail = false;
    std::atomic<bool> running{false};
    std::atomic<int> stops{0};
};

// What a mixer saw; outlives the mixer, which the recorder drops at stop.
struct MixerProbe {
    std::atomic<bool> opened{false};
    std::atomic<bool> systemEnabled{false};
    std::atomic<int> micBuffers{0};
    std::atomic<int> finishes{0};
    std::filesystem::path file;
};

class Mixer final : public audio::RecordingMixer {
public:
    Mixer(std::filesystem::path file, bool useM4a, bool failOpen, std::shared_ptr<MixerProbe> probe)
        : failOpen_(failOpen), probe_(std::move(probe)) {
        probe_->file = useM4a ? file.replace_extension(".m4a") : file;
    }
    void open() override {
        if (failOpen_) throw audio::MixerOpenError("no encoder");
        // One whole ADTS frame (AAC-LC, 44.1 kHz, stereo, one payload byte): a file with
        // audio in it.
        static const char kFrame[] = {'\xFF', '\xF1', '\x50', '\x80', '\x01', '\x1F', '\xFC', '\x00'};
        std::ofstream(probe_->file, std::ios::binary).write(kFrame, sizeof kFrame);
        probe_->opened = true;
    }
    std::filesystem::path outputFile() const override { return probe_->file; }
    void setSystemEnabled(bool enabled) override { probe_->systemEnabled = enabled; }
    void appendMicrophone(audio::PcmBufferPtr) override { ++probe_->micBuffers; }
    void appendSystem(audio::PcmBufferPtr) override {}
    void finish() override { ++probe_->finishes; }

private:
    bool failOpen_;
    std::shared_ptr<MixerProbe> probe_;
};

class Speech final : public audio::SpeechDetector {
public:
    void analyze(audio::PcmBufferPtr) override { ++analyzed; }
    void reset() override { ++resets; }
    bool usable() const override { return isUsable; }
    std::optional<WallTime> lastSpeech() const override { return speaking ? speaking() : heard; }

    std::atomic<int> analyzed{0};
    int resets = 0;
    bool isUsable = true;
    std::optional<WallTime> heard;
    std::function<std::optional<WallTime>()> speaking;
};

// Every part, with the mixers kept so that tests can fire their callbacks.
struct Rig {
    std::shared_ptr<Microphone> mic = std::make_shared<Microphone>();
    std::shared_ptr<SystemAudio> system = std::make_shared<SystemAudio>();
    std::shared_ptr<Speech> speech = std::make_shared<Speech>();
    std::vector<Mixer*> mixers;  // valid while their recording runs
    std::vector<std::shared_ptr<MixerProbe>> probes;
    bool mixerUsesM4a = false;
    bool mixerFailsOpen = false;
    std::optional<std::string> account = std::string("acct-1");
    std::vector<std::string> ended;

    RecorderParts parts() {
        RecorderParts p;
        p.microphone = mic;
        p.chooser = std::make_shared<Chooser>();
        p.systemAudio = system;
        p.speech = speech;
        p.makeMixer = [this](const std::filesystem::path& file, double rate) {
            EXPECT_EQ(rate, 44'100);
            probes.push_back(std::make_shared<MixerProbe>());
            auto m = std::make_unique<Mixer>(file, mixerUsesM4a, mixerFailsOpen, probes.back());
            mixers.push_back(m.get());
            return m;
        };
        p.accountID = [this] { return account; };
        p.hasServiceSession = [] { return true; };
        p.liveAdvisor.begin = [](const std::string&) { return std::optional<std::string>("live-9"); };
        p.liveAdvisor.recordingEnded = [this](const std::string& id) { ended.push_back(id); };
        return p;
    }
    Mixer& mixer() { return *mixers.back(); }
    MixerProbe& probe() { return *probes.back(); }
};

// An AAC writer that counts the frames it is given and writes nothing.
class CountingWriter : public media::AacWriter {
public:
    explicit CountingWriter(std::filesystem::path path, media::AacSettings settings = {})
        : path_(std::move(path)), settings_(settings) {}
    Expected<Unit, std::string> write(const float* const*, int, std::size_t frames, int) override {
        frames_ += std::int64_t(frames);
        return Unit{};
    }
    Expected<Unit, std::string> syncToDisk() override { return Unit{}; }
    Expected<Unit, std::string> finish() override { return Unit{}; }
    const media::AacSettings& settings() const override { return settings_; }
    std::int64_t framesWritten() const override { return frames_; }
    const std::filesystem::path& path() const override { return path_; }

private:
    std::filesystem::path path_;
    media::AacSettings settings_;
    std::int64_t frames_ = 0;
};

}  // namespace vell::recording::fakes
