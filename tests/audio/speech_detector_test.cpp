// The speech detector: its rules over a scripted classifier, and the built-in WebRTC
// classifier on real speech (espeak-ng), silence and noise.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <mutex>
#include <random>

#include "audio/speech_activity_detector.h"
#include "base/log.h"
#include "tests/audio/aac_test_decoder.h"
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

// Mixed-format blocks (44.1 kHz stereo, 0.1 s) from mono samples.
std::vector<PcmBufferPtr> blocks(const std::vector<float>& mono) {
    std::vector<PcmBufferPtr> out;
    for (std::size_t at = 0; at < mono.size(); at += 4410) {
        const std::size_t n = std::min<std::size_t>(4410, mono.size() - at);
        auto b = PcmBuffer::make(44100, 2, n);
        std::copy_n(mono.begin() + std::ptrdiff_t(at), n, b->channels[0].begin());
        b->channels[1] = b->channels[0];
        out.push_back(std::move(b));
    }
    return out;
}

std::vector<float> espeak(const std::filesystem::path& dir, const std::string& text) {
    const auto raw = dir / "speech.f32";
    const std::string command = "espeak-ng -v en -s 150 --stdout \"" + text + "\" | sox -q -t wav - -t f32 -r 44100 -c 1 " +
                                raw.string() + " norm -3";
    if (std::system(command.c_str()) != 0) return {};
    std::ifstream in(raw, std::ios::binary);
    std::vector<float> samples;
    float v;
    while (in.read(reinterpret_cast<char*>(&v), sizeof v)) samples.push_back(v);
    return samples;
}

struct Verdict {
    long results = 0;
    bool spoke = false;
};

Verdict judge(const std::vector<float>& mono) {
    ManualClock clock;
    SpeechActivityDetector detector(makeVoicedShareClassifier(), &clock);
    for (auto& b : blocks(mono)) detector.analyze(b);
    detector.drain();
    return {detector.resultCount(), detector.lastSpeech().has_value()};
}

TEST(SpeechDetector, BuiltInClassifierHearsSpeechButNotSilenceOrNoise) {
    test::TempHome home;
    auto speech = espeak(home.tmp(),
                         "Good morning everyone. Let us go over the numbers for the third quarter, "
                         "and then talk about the hiring plan for next year.");
    ASSERT_GT(speech.size(), 44100u * 4) << "espeak-ng and sox are needed";
    auto spoken = judge(speech);
    EXPECT_GE(spoken.results, long(speech.size() / 44100) - 1);
    EXPECT_TRUE(spoken.spoke);

    auto silent = judge(std::vector<float>(44100 * 5, 0.0f));
    EXPECT_GE(silent.results, 4);  // the resampler keeps a few samples of the last window
    EXPECT_FALSE(silent.spoke);

    std::mt19937 random(7);
    std::normal_distribution<float> gaussian(0.0f, 0.05f);
    std::vector<float> noise(44100 * 5);
    for (auto& x : noise) x = gaussian(random);
    auto noisy = judge(noise);
    EXPECT_GE(noisy.results, 4);
    EXPECT_FALSE(noisy.spoke);
}

}  // namespace
}  // namespace vell::audio
