// The speech detector: its rules over a scripted classifier, and the installed classifier
// on real speech (espeak-ng), music, loud noise and silence.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <mutex>
#include <random>

#include "audio/speech_activity_detector.h"
#include "base/log.h"
#include "tests/audio/aac_test_decoder.h"
#include "platform/silero/silero_classifier.h"
#include "tests/support/sound_samples.h"
#include "tests/support/temp_home.h"

namespace vell::audio {
namespace {

// Remembers what it was fed; the test decides what comes out.
struct Script {
    std::mutex lock;
    std::vector<std::pair<double, std::int64_t>> fed;  // (rate, frame position)
    std::optional<std::string> refuseAnalyzer;
};

class ScriptedClassifier final : public SoundClassifier {
public:
    explicit ScriptedClassifier(std::shared_ptr<Script> script) : script_(std::move(script)) {}
    Expected<std::unique_ptr<SoundStreamAnalyzer>, std::string> makeAnalyzer(double rate, int,
                                                                             SoundAnalysisObserver&) override {
        if (script_->refuseAnalyzer) return unexpected(*script_->refuseAnalyzer);
        return std::unique_ptr<SoundStreamAnalyzer>(std::make_unique<Analyzer>(script_, rate));
    }

private:
    struct Analyzer final : SoundStreamAnalyzer {
        Analyzer(std::shared_ptr<Script> s, double r) : script(std::move(s)), rate(r) {}
        void analyze(const PcmBuffer&, std::int64_t position) override {
            std::lock_guard g(script->lock);
            script->fed.emplace_back(rate, position);
        }
        std::shared_ptr<Script> script;
        double rate;
    };
    std::shared_ptr<Script> script_;
};

SoundClassificationResult result(std::vector<SoundClassification> classifications) {
    SoundClassificationResult r;
    r.classifications = std::move(classifications);
    return r;
}

class SpeechRulesTest : public ::testing::Test {
protected:
    std::shared_ptr<Script> script = std::make_shared<Script>();
    ManualClock clock;
    SpeechActivityDetector detector{std::make_shared<ScriptedClassifier>(script), &clock};
};

TEST_F(SpeechRulesTest, OnlySpeechLabelsAtHalfConfidenceOrMoreMoveLastSpeech) {
    detector.resultProduced(result({{"speech", 0.49}}));
    detector.resultProduced(result({{"music", 0.95}, {"laughter", 0.8}}));
    EXPECT_FALSE(detector.lastSpeech());
    EXPECT_EQ(detector.resultCount(), 2);

    const auto seen = detector.lastSpeech();
    clock.advance(3);
    detector.resultProduced(result({{"music", 0.9}, {"speech", 0.3}, {"chatter", 0.5}}));
    EXPECT_EQ(detector.lastSpeech(), clock.now());
    EXPECT_TRUE(detector.newSpeechSince(seen));
    EXPECT_FALSE(detector.newSpeechSince(detector.lastSpeech()));

    for (auto label : SpeechActivityDetector::kSpeechLabels) {
        clock.advance(1);
        detector.resultProduced(result({{std::string(label), 0.5}}));
        EXPECT_EQ(detector.lastSpeech(), clock.now()) << label;
    }
}

TEST_F(SpeechRulesTest, AMinuteWithoutAnyResultIsNotTrusted) {
    // 10 Hz blocks keep the sums exact: 599 frames = 59.9 s.
    detector.analyze(test::constantBlock(10, 1, 599, 0.0f));
    detector.drain();
    EXPECT_DOUBLE_EQ(detector.secondsAnalyzed(), 59.9);
    EXPECT_TRUE(detector.usable());
    detector.analyze(test::constantBlock(10, 1, 1, 0.0f));
    detector.drain();
    EXPECT_DOUBLE_EQ(detector.secondsAnalyzed(), 60.0);
    EXPECT_FALSE(detector.usable());
    // One result, however late, restores trust.
    detector.resultProduced(result({{"silence", 1.0}}));
    EXPECT_TRUE(detector.usable());

    detector.reset();
    EXPECT_EQ(detector.secondsAnalyzed(), 0);
    EXPECT_EQ(detector.resultCount(), 0);
    EXPECT_FALSE(detector.lastSpeech());
    EXPECT_TRUE(detector.usable());
}

TEST_F(SpeechRulesTest, ARateChangeStartsANewAnalyzerAtFramePositionZero) {
    detector.analyze(test::constantBlock(44100, 2, 4410, 0.0f));
    detector.analyze(test::constantBlock(44100, 2, 4410, 0.0f));
    detector.analyze(test::constantBlock(48000, 2, 4800, 0.0f));
    detector.analyze(test::constantBlock(48000, 2, 480, 0.0f));
    EXPECT_EQ(detector.framePosition(), 5280);
    EXPECT_EQ(detector.analyzersCreated(), 2);
    std::lock_guard g(script->lock);
    using Fed = std::vector<std::pair<double, std::int64_t>>;
    EXPECT_EQ(script->fed, (Fed{{44100, 0}, {44100, 4410}, {48000, 0}, {48000, 4800}}));
}

TEST_F(SpeechRulesTest, FailuresMakeTheDetectorUnusableAndAreLogged) {
    std::vector<std::string> lines;
    std::mutex linesLock;
    log::setSink([&](log::Level, const std::string&, const std::string& m) {
        std::lock_guard g(linesLock);
        lines.push_back(m);
    });
    script->refuseAnalyzer = "analyzer refused the format";
    detector.analyze(test::constantBlock(44100, 2, 441, 0.0f));
    detector.drain();
    log::setSink({});
    EXPECT_FALSE(detector.usable());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "Vell speech detector: analyzer refused the format");

    // A new recording gets a fresh chance.
    script->refuseAnalyzer.reset();
    detector.reset();
    detector.analyze(test::constantBlock(44100, 2, 441, 0.0f));
    detector.drain();
    EXPECT_TRUE(detector.usable());
    detector.requestFailed("stream error");
    EXPECT_FALSE(detector.usable());
}

TEST(SpeechDetector, WithoutAClassifierItIsNeverUsable) {
    ManualClock clock;
    SpeechActivityDetector detector(nullptr, &clock);
    detector.analyze(test::constantBlock(44100, 2, 4410, 0.3f));
    detector.drain();
    EXPECT_FALSE(detector.usable());
    detector.reset();
    EXPECT_FALSE(detector.usable());
}

// The installed classifier on real sounds, fed as the mixer delivers them (44.1 kHz stereo,
// 0.1 s). A loudness gate, or a voice detector that only sees energy in the voice band,
// fails these: the noise and the music are far louder than the speech.
struct Verdict {
    long results = 0;
    std::optional<WallTime> lastSpeech;
    bool usable = false;
};

Verdict judge(const std::vector<float>& mono16k) {
    auto classifier = makeSpeechClassifier();
    EXPECT_TRUE(classifier) << (classifier ? "" : classifier.error()) << " (run scripts/bootstrap)";
    if (!classifier) return {};
    ManualClock clock;
    SpeechActivityDetector detector(*classifier, &clock);
    std::vector<float> mono44k(mono16k.size() * 44100 / 16000);
    for (std::size_t i = 0; i < mono44k.size(); ++i) mono44k[i] = mono16k[std::min(mono16k.size() - 1, i * 16000 / 44100)];
    for (auto& b : test::mixerBlocks(mono44k, 44100)) detector.analyze(b);
    detector.drain();
    return {detector.resultCount(), detector.lastSpeech(), detector.usable()};
}

constexpr int kRate = 16000;

TEST(InstalledSpeechClassifier, SteadyLoudNoiseAndMusicOverAMinuteNeverMoveLastSpeech) {
    const std::size_t minute = 65 * kRate;
    auto pink = test::pinkNoise(minute, 0.3, 1);   // about -10 dBFS
    auto white = test::whiteNoise(minute, 0.2, 2); // about -14 dBFS
    const auto music = test::packagedMusic();
    ASSERT_FALSE(music.empty()) << "asc-music and fb-music-high are needed";
    auto song = test::decodeMono(music.front(), kRate, 65);
    ASSERT_GT(song.size(), std::size_t(60 * kRate));
    test::setLevel(song, -10);
    for (const auto* sound : {&pink, &white, &song}) {
        auto verdict = judge(*sound);
        EXPECT_GE(verdict.results, 60);
        EXPECT_FALSE(verdict.lastSpeech) << "a window of steady noise or music was taken for speech";
        EXPECT_TRUE(verdict.usable);
    }
}

TEST(InstalledSpeechClassifier, QuietSpeechUnderNoiseMovesLastSpeechAndSilenceDoesNot) {
    auto speech = test::speak("Good morning everyone. Let us go over the numbers for the third quarter.", "en", kRate);
    ASSERT_GT(speech.size(), std::size_t(3 * kRate)) << "espeak-ng and ffmpeg are needed";
    auto spanish = test::speak("Buen día a todos. Repasemos los números del tercer trimestre.", "es", kRate);
    ASSERT_GT(spanish.size(), std::size_t(3 * kRate));
    // Speech at -40 dBFS, 5 dB over pink noise: quieter than the noise of the test above.
    for (auto* voice : {&speech, &spanish}) {
        auto noise = test::pinkNoise(voice->size(), std::pow(10, -45.0 / 20), 3);
        auto mixed = test::mixAtSnr(*voice, noise, 5);
        auto verdict = judge(mixed);
        EXPECT_TRUE(verdict.lastSpeech);
        EXPECT_GE(verdict.results, 2);
    }
    auto silent = judge(std::vector<float>(5 * kRate, 0.0f));
    EXPECT_GE(silent.results, 4);
    EXPECT_FALSE(silent.lastSpeech);
}

TEST(InstalledSpeechClassifier, WithoutAModelTheDetectorSaysSoAndIsNeverUsable) {
    std::vector<std::string> lines;
    log::setSink([&](log::Level, const std::string&, const std::string& line) { lines.push_back(line); });
    setSpeechClassifierFactory([]() -> Expected<std::shared_ptr<SoundClassifier>, std::string> {
        return unexpected(std::string("no speech model (silero_vad.onnx) found"));
    });
    {
        SpeechActivityDetector detector;
        detector.analyze(test::constantBlock(44100, 2, 4410, 0.3f));
        detector.drain();
        EXPECT_FALSE(detector.usable());
    }
    setSpeechClassifierFactory(&silero::loadSpeechClassifier);  // as the composition root has it
    log::setSink({});
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("no speech model (silero_vad.onnx) found"), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("without meaningful audio"), std::string::npos) << lines[0];
    EXPECT_TRUE(makeSpeechClassifier());
}

}  // namespace
}  // namespace vell::audio
