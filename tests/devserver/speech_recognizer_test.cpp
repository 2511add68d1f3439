// The reference service's recogniser on real audio: FFmpeg decodes what a client sends,
// PocketSphinx hears spoken English in it, and each word keeps its place in time.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "devserver/quick_transcriber.h"
#include "devserver/speech_decoder.h"
#include "devserver/speech_recognizer.h"
#include "tests/support/spoken_english.h"
#include "tests/support/temp_home.h"

namespace vell::devserver {
namespace {

std::vector<int16_t> silence(double seconds) { return std::vector<int16_t>(static_cast<size_t>(seconds * 16000), 0); }

std::vector<int16_t> joined(std::initializer_list<std::vector<int16_t>> parts) {
    std::vector<int16_t> out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

TEST(SpeechRecognizer, DecodesAdtsAndMpeg4ToSixteenKilohertzAndRefusesOtherBytes) {
    test::TempHome home;
    const auto dir = home.root();
    // 2 s of a 48 kHz stereo tone, in both containers a client may send.
    const std::string make = "ffmpeg -loglevel error -y -f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 -ac 2 -c:a aac ";
    ASSERT_EQ(test::runCommand(make + "-f adts '" + (dir / "tone.aac").string() + "'").status, 0);
    ASSERT_EQ(test::runCommand(make + "'" + (dir / "tone.m4a").string() + "'").status, 0);
    for (const char* name : {"tone.aac", "tone.m4a"}) {
        SCOPED_TRACE(name);
        std::ifstream in(dir / name, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const auto samples = decodeToSpeechRate(bytes);
        // The encoder's priming and padding add at most a few frames.
        EXPECT_NEAR(static_cast<double>(samples.size()) / 16000, 2.0, 0.15);
        double energy = 0;
        for (auto s : samples) energy += static_cast<double>(s) * s;
        EXPECT_GT(std::sqrt(energy / std::max<size_t>(samples.size(), 1)), 1000);  // the tone, not silence
    }
    EXPECT_TRUE(decodeToSpeechRate("").empty());
    EXPECT_TRUE(decodeToSpeechRate(std::string(5000, 'x')).empty());
}

TEST(SpeechRecognizer, HearsSpokenEnglishWithWordTimesInsideTheAudio) {
    const auto speech = test::spokenEnglish();
    ASSERT_FALSE(speech.empty()) << "espeak-ng and sox make the test speech";
    // Through the codec, as the service receives it.
    const auto samples = decodeToSpeechRate(test::encodeAac(joined({silence(1.5), speech})));
    ASSERT_FALSE(samples.empty());
    const auto heard = recognizeSpeech(samples);
    EXPECT_GE(test::wordsHeard(test::kSpokenSentence, heard.text), 5) << heard.text;
    ASSERT_FALSE(heard.words.empty());
    std::string text;
    double previous = 0;
    for (const auto& w : heard.words) {
        text += (text.empty() ? "" : " ") + w.word;
        EXPECT_GE(w.startSeconds, previous) << w.word;
        EXPECT_GT(w.endSeconds, w.startSeconds) << w.word;
        previous = w.startSeconds;
    }
    EXPECT_EQ(text, heard.text);
    // Nothing is heard in the leading silence, nothing after the end.
    EXPECT_GE(heard.words.front().startSeconds, 1.3);
    EXPECT_LE(heard.words.back().endSeconds, static_cast<double>(samples.size()) / 16000 + 0.05);
}

TEST(SpeechRecognizer, SilenceIsNoWordsAndAPauseKeepsLaterWordsInTheirPlace) {
    EXPECT_EQ(recognizeSpeech(silence(3)).text, "");
    EXPECT_TRUE(recognizeSpeech({}).words.empty());

    const auto first = test::spokenEnglish("good morning everybody");
    const auto second = test::spokenEnglish(test::kSpokenSentence);
    const double secondStarts = static_cast<double>(first.size()) / 16000 + 4.0;
    const auto audio = joined({first, silence(4.0), second});
    // Twice: the second run reuses the first one's decoder, whose clock has run on.
    for (int run = 0; run < 2; ++run) {
        SCOPED_TRACE(run);
        const auto heard = recognizeSpeech(audio);
        EXPECT_GE(test::wordsHeard(test::kSpokenSentence, heard.text), 5) << heard.text;
        ASSERT_FALSE(heard.words.empty());
        // The first words lie in the first sentence, the last ones after the pause, both
        // within a tenth of a second of where they were said.
        EXPECT_LT(heard.words.front().startSeconds, 0.5) << heard.text;
        EXPECT_GT(heard.words.back().startSeconds, secondStarts) << heard.text;
        EXPECT_LT(heard.words.back().endSeconds, static_cast<double>(audio.size()) / 16000) << heard.text;
        int afterPause = 0;
        for (const auto& w : heard.words) afterPause += w.startSeconds > secondStarts - 0.1 ? 1 : 0;
        EXPECT_GE(afterPause, 4) << heard.text;
    }
}

TEST(SpeechRecognizer, DraftsGrowAsAudioArrives) {
    const auto speech = test::spokenEnglish(test::kSpokenSentence);
    SpeechDecoder decoder;
    ASSERT_TRUE(decoder.ready()) << "the US English model is installed";
    std::vector<std::string> drafts;
    const size_t step = speech.size() / 4;
    for (size_t at = 0; at < speech.size(); at += step) {
        decoder.feed(speech.data() + at, std::min(step, speech.size() - at));
        drafts.push_back(decoder.hypothesis());
    }
    const auto result = decoder.finish();
    EXPECT_FALSE(drafts.front().empty() && drafts.back().empty());
    EXPECT_LT(test::wordsOf(drafts[0]).size(), test::wordsOf(result.text).size()) << drafts[0] << " | " << result.text;
    EXPECT_GE(test::wordsHeard(test::kSpokenSentence, result.text), 4) << result.text;
}

}  // namespace
}  // namespace vell::devserver

namespace vell::devserver {
namespace {

std::vector<TranscriptLine> allLines(TranscriptStream& stream) {
    std::vector<TranscriptLine> lines;
    while (auto line = stream.next()) lines.push_back(*line);
    return lines;
}

// The answer's lines without HTTP: each fault where it belongs when speech gives drafts, and
// at the end when silence gives none.
TEST(TranscriptStreamLines, FaultsWaitForTheirDraftsOrComeWhereTheFinalLineWouldBe) {
    const auto began = std::chrono::steady_clock::now();
    const auto quiet = silence(2);
    {
        TranscriptStream plain(quiet, "", 0, began);
        auto lines = allLines(plain);
        ASSERT_EQ(lines.size(), 1u);
        auto final = nlohmann::json::parse(lines[0].json);
        EXPECT_EQ(final["stage"], "final");
        EXPECT_EQ(final["text"], "");
        EXPECT_DOUBLE_EQ(final["durationS"].get<double>(), 2.0);
    }
    {
        TranscriptStream error(quiet, "error", 0, began);
        auto lines = allLines(error);
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(nlohmann::json::parse(lines[0].json), (nlohmann::json{{"stage", "error"}, {"error", "transcription_failed"}}));
    }
    {
        TranscriptStream cut(quiet, "cut", 0, began);
        auto lines = allLines(cut);
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_TRUE(lines[0].json.empty());
        EXPECT_TRUE(lines[0].cutAfter);
    }
    {
        TranscriptStream draftsOnly(quiet, "draftsOnly", 0, began);
        EXPECT_TRUE(allLines(draftsOnly).empty());
    }
    // With speech: the error follows the first draft, the cut comes with the second.
    const auto speech = test::spokenEnglish("good morning everybody. the weather is nice today");
    {
        TranscriptStream error(speech, "error", 0, began);
        auto lines = allLines(error);
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(nlohmann::json::parse(lines[0].json)["stage"], "draft");
        EXPECT_EQ(nlohmann::json::parse(lines[1].json)["stage"], "error");
    }
    {
        TranscriptStream cut(speech, "cut", 0, began);
        auto lines = allLines(cut);
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_FALSE(lines[0].cutAfter);
        EXPECT_TRUE(lines[1].cutAfter);
        EXPECT_EQ(nlohmann::json::parse(lines[1].json)["stage"], "draft");
    }
}

}  // namespace
}  // namespace vell::devserver
