// Our forward pass of the Silero network against the same graph run node by node in numpy
// (tests/platform/silero_reference.py), and what happens with a model file that is wrong.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "platform/silero/silero_classifier.h"
#include "platform/silero/silero_vad.h"
#include "tests/support/child_process.h"
#include "tests/support/sound_samples.h"
#include "tests/support/temp_home.h"

namespace vell::silero {
namespace {

std::filesystem::path installedModel() {
    for (const auto& path : modelCandidates())
        if (std::filesystem::is_regular_file(path)) return path;
    return {};
}

TEST(SileroForwardPass, MatchesTheGraphRunLiterally) {
    const auto model = installedModel();
    ASSERT_FALSE(model.empty()) << "no speech model in the build tree: run scripts/bootstrap, then configure again";
    auto weights = loadWeights(model);
    ASSERT_TRUE(weights) << weights.error();

    // Speech, a pause, then speech under noise: every part of the network gets exercised,
    // and the recurrent state carries from chunk to chunk.
    auto speech = test::speak("Seven quick questions, and then we can break for lunch.", "en", kSampleRate);
    ASSERT_GT(speech.size(), std::size_t(kSampleRate)) << "espeak-ng and ffmpeg are needed";
    auto samples = speech;
    samples.resize(samples.size() + kSampleRate / 2, 0.0f);
    auto noisy = test::mixAtSnr(speech, test::pinkNoise(speech.size(), 0.05, 3), 5);
    samples.insert(samples.end(), noisy.begin(), noisy.end());

    test::TempHome home;
    const auto input = home.tmp() / "samples.f32";
    std::ofstream(input, std::ios::binary)
        .write(reinterpret_cast<const char*>(samples.data()), std::streamsize(samples.size() * sizeof(float)));
    const auto reference = test::runCommand("/usr/bin/python3 " + std::string(VELL_SOURCE_DIR) +
                                            "/tests/platform/silero_reference.py " + model.string() + " " + input.string());
    ASSERT_EQ(reference.status, 0) << "python3-numpy is needed: " << reference.output;
    std::istringstream expected(reference.output);

    Stream stream(*weights);
    stream.reset();
    int chunks = 0, speechChunks = 0;
    double worst = 0;
    for (std::size_t at = 0; at + kChunkSamples <= samples.size(); at += kChunkSamples, ++chunks) {
        const float ours = stream.process(samples.data() + at);
        double theirs = -1;
        ASSERT_TRUE(expected >> theirs) << "the reference stopped after " << chunks << " chunks";
        worst = std::max(worst, std::abs(ours - theirs));
        speechChunks += theirs > 0.5;
    }
    EXPECT_LT(worst, 1e-4);
    EXPECT_GT(chunks, 100);
    EXPECT_GT(speechChunks, chunks / 3) << "the sample should be mostly speech";
}

TEST(SileroForwardPass, AWrongModelFileIsRefusedWithItsReason) {
    EXPECT_FALSE(parseWeights("not a model"));
    // A well-formed protobuf without the network's tensors.
    const std::string emptyGraph("\x3a\x00", 2);
    auto refused = parseWeights(emptyGraph);
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().find("Silero"), std::string::npos) << refused.error();

    test::TempHome home;
    const auto damaged = home.tmp() / "damaged.onnx";
    std::string bytes = test::readAll(installedModel());
    ASSERT_GT(bytes.size(), 1000u);
    std::ofstream(damaged, std::ios::binary) << bytes.substr(0, bytes.size() / 2);
    setenv("VELL_SPEECH_MODEL", damaged.c_str(), 1);
    auto loaded = loadSpeechClassifier();
    unsetenv("VELL_SPEECH_MODEL");
    ASSERT_FALSE(loaded);
    EXPECT_NE(loaded.error().find(damaged.string()), std::string::npos) << loaded.error();
}

}  // namespace
}  // namespace vell::silero
