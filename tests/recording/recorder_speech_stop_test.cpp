// The 10-minutes-without-speech stop over real sound: the recorder with the real mixer and
// the installed speech classifier, fed recorded music as system audio and the microphone's
// blocks, on a virtual clock (every 0.1 s of audio advances it 0.1 s, as fast as the CPU goes).
#include <gtest/gtest.h>

#include <fstream>

#include "audio/realtime_mixer.h"
#include "audio/speech_activity_detector.h"
#include "base/language.h"
#include "base/manual_executor.h"
#include "base/runtime.h"
#include "recording/recorder_service.h"
#include "tests/recording/recorder_fakes.h"
#include "tests/support/sound_samples.h"
#include "tests/support/temp_home.h"

namespace vell::recording {
namespace {

constexpr int kRate = 16000;  // the rate the sounds are delivered at (the mixer converts)
constexpr std::size_t kBlock = kRate / 10;

// The file is not what these tests are about: encoding eleven minutes of AAC would cost more
// than everything else they do.
using DiscardingWriter = fakes::CountingWriter;

// The system-audio tap, delivering whatever the test hands it.
class SystemAudio final : public audio::SystemAudioSource {
public:
    void start(audio::BufferHandler h) override { handler = std::move(h); }
    void stop() override { handler = nullptr; }
    bool isRunning() const override { return bool(handler); }
    audio::BufferHandler handler;
};

class SpeechStopTest : public ::testing::Test {
protected:
    SpeechStopTest() : exec(clock) {
        runtime::install(&exec, &clock);
        setInterfaceLanguage(Language::English);
    }
    ~SpeechStopTest() override {
        recorder.reset();
        runtime::install(nullptr, nullptr);
    }

    void SetUp() override {
        auto classifier = audio::makeSpeechClassifier();
        ASSERT_TRUE(classifier) << classifier.error() << " (run scripts/bootstrap)";
        speech = std::make_shared<audio::SpeechActivityDetector>(*classifier, &clock);
        for (const auto& file : test::packagedMusic()) {
            if (music.size() > std::size_t(11 * 60 * kRate)) break;
            auto part = test::decodeMono(file, kRate);
            music.insert(music.end(), part.begin(), part.end());
        }
        ASSERT_GT(music.size(), std::size_t(11 * 60 * kRate)) << "asc-music and fb-music-high are needed";
        test::setLevel(music, -18);

        auto parts = rig.parts();
        parts.systemAudio = system;
        parts.speech = speech;
        parts.makeMixer = [this](const std::filesystem::path& file, double rate) -> std::unique_ptr<audio::RecordingMixer> {
            audio::RealtimeMixer::Options options;
            options.clock = &clock;
            options.automaticTicks = false;
            options.writerFactory = [](const std::filesystem::path& path, const media::AacSettings&)
                -> Expected<std::unique_ptr<media::AacWriter>, std::string> {
                std::ofstream(path) << "ADTS";
                return std::unique_ptr<media::AacWriter>(std::make_unique<DiscardingWriter>(path));
            };
            auto m = std::make_unique<audio::RealtimeMixer>(file, rate, options);
            mixer = m.get();
            return m;
        };
        recorder = std::make_unique<RecorderService>(parts, home.dataHome() / "Vell" / "Recordings");
        recorder->discardAtStop = [this](const std::string&, bool heard) {
            heardSpeechAtStop = heard;
            return false;
        };
        std::optional<bool> started;
        recorder->start({}, [&](bool ok) { started = ok; });
        ASSERT_TRUE(exec.runUntil([&] { return started.has_value(); }));
        ASSERT_TRUE(*started) << recorder->state.lastError.get().value_or("");
        ASSERT_TRUE(system->handler);
    }

    static audio::PcmBufferPtr block(const std::vector<float>& mono, std::size_t at) {
        auto b = audio::PcmBuffer::make(kRate, 2, kBlock);
        for (std::size_t i = 0; i < kBlock; ++i) b->channels[0][i] = at + i < mono.size() ? mono[at + i] : 0.0f;
        b->channels[1] = b->channels[0];
        return b;
    }

    // Plays music on the system side and `mic` (silence after its end) on the microphone,
    // 0.1 s at a time, until the recording stops or `seconds` have passed; the seconds played.
    double play(double seconds, const std::vector<float>& mic) {
        std::size_t at = 0;
        for (; at < std::size_t(seconds * kRate) && recorder->state.isRecording.get(); at += kBlock) {
            rig.mic->handler(block(mic, at));
            system->handler(block(music, at));
            mixer->tick();
            // The analysis keeps pace with the virtual clock, within one ticker period.
            if ((at / kBlock) % 5 == 4) speech->drain();
            exec.advance(0.1);
        }
        return double(at) / kRate;
    }

    test::TempHome home;
    ManualClock clock;
    ManualExecutor exec;
    fakes::Rig rig;
    std::shared_ptr<SystemAudio> system = std::make_shared<SystemAudio>();
    std::shared_ptr<audio::SpeechActivityDetector> speech;
    audio::RealtimeMixer* mixer = nullptr;
    std::unique_ptr<RecorderService> recorder;
    std::vector<float> music;
    std::optional<bool> heardSpeechAtStop;
};

TEST_F(SpeechStopTest, ElevenMinutesOfMusicAndNobodySpeakingStopsAfterTen) {
    const double played = play(11 * 60, {});
    EXPECT_FALSE(recorder->state.isRecording.get()) << "music kept the recording alive";
    EXPECT_NEAR(played, 600, 1.0);
    EXPECT_EQ(recorder->state.lastError.get(), "Recording stopped after 10 minutes without speech.");
    EXPECT_GT(speech->resultCount(), 550);
    EXPECT_FALSE(speech->lastSpeech());
    EXPECT_EQ(heardSpeechAtStop, false);  // a meeting recorded like this counts as nobody spoke
}

TEST_F(SpeechStopTest, SomebodySpeakingOverTheMusicPushesTheStopBack) {
    // A sentence on the microphone 20 s in, at a normal voice level.
    std::vector<float> mic(20 * kRate, 0.0f);
    auto words = test::speak("Sorry, can you turn that down? We are about to start the meeting.", "en", kRate);
    ASSERT_GT(words.size(), std::size_t(2 * kRate)) << "espeak-ng and ffmpeg are needed";
    test::setLevel(words, -26);
    mic.insert(mic.end(), words.begin(), words.end());
    const double spokeUntil = double(mic.size()) / kRate;

    const double played = play(11 * 60, mic);
    EXPECT_FALSE(recorder->state.isRecording.get());
    EXPECT_GT(played, 600 + 20);
    EXPECT_LT(played, 600 + spokeUntil + 2);
    EXPECT_EQ(heardSpeechAtStop, true);
}

}  // namespace
}  // namespace vell::recording
