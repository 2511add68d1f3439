// vell speech-test: a real file decoded by FFmpeg, windows with their speech confidence,
// and the verdict on the 10-minute stop.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/support/temp_home.h"

namespace vell::test {
namespace {

CommandResult vell(const std::string& arguments) {
    return runCommand(binaryPath("vell").string() + " --lang en " + arguments + " 2>&1");
}

TEST(SpeechTestCommand, ShowsWhereSomeoneSpeaksInACompressedFile) {
    TempHome home;
    const auto dir = home.tmp();
    // Eight seconds of loud pink noise, then a sentence spoken over it, as Ogg Vorbis.
    const auto file = dir / "meeting.ogg";
    const auto made = runCommand(
        "cd '" + dir.string() + "' && espeak-ng -w words.wav 'Good morning everyone, shall we start with the budget?' && "
        "sox -n -r 22050 -c 1 noise.wav synth 12 pinknoise vol 0.25 && "
        "sox words.wav late.wav pad 8 0 && sox -m noise.wav late.wav -C 3 meeting.ogg 2>&1");
    ASSERT_EQ(made.status, 0) << made.output;

    auto r = vell("speech-test --json '" + file.string() + "'");
    ASSERT_EQ(r.status, 0) << r.output;
    auto json = nlohmann::json::parse(r.output);
    const auto& windows = json["windows"];
    ASSERT_GE(windows.size(), 10u);
    double firstSpeech = -1;
    for (const auto& w : windows) {
        if (w["isSpeech"] && firstSpeech < 0) firstSpeech = w["start"];
        EXPECT_EQ(w["isSpeech"], w["speech"].get<double>() >= 0.5);
    }
    EXPECT_GE(firstSpeech, 7.0) << "noise was taken for speech: " << r.output;
    EXPECT_LE(firstSpeech, 9.5) << r.output;
    EXPECT_GE(json["speechWindows"].get<int>(), 2);
    EXPECT_NEAR(json["seconds"].get<double>(), 12, 0.5);

    auto text = vell("speech-test '" + file.string() + "'");
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.output.find("  speech\n"), std::string::npos) << text.output;
    EXPECT_NE(text.output.find("A recording like this is not stopped for lack of speech."), std::string::npos) << text.output;
}

TEST(SpeechTestCommand, AFileWithoutAudioIsRefusedClearly) {
    TempHome home;
    auto r = vell("speech-test /etc/hostname");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.output.find("Could not read the audio: /etc/hostname"), std::string::npos) << r.output;
}

}  // namespace
}  // namespace vell::test
