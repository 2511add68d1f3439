// What the reference service makes of a conversation: speakers by the louder side, the
// cues' rules (talk time, monologues, questions, silences) and the extractive summary.
#include <gtest/gtest.h>

#include "devserver/analysis.h"

namespace vell::devserver {
namespace {

std::vector<TimedWord> say(const std::string& text, int64_t startMs) {
    std::vector<TimedWord> words;
    std::istringstream in(text);
    int64_t at = startMs;
    for (std::string w; in >> w; at += 400) words.push_back({w, at, at + 300});
    return words;
}

const Cue* cue(const Analysis& a, const std::string& kind) {
    for (const auto& c : a.cues)
        if (c.kind == kind) return &c;
    return nullptr;
}

TEST(Analysis, TheLouderSideSpeaksAndTheCuesFollowTheLevels) {
    AnalysisInput in;
    SideLevels sides;
    // 0-70 s the microphone side talks, 70-85 s nobody, 85-90 s the system side.
    for (int i = 0; i < 180; ++i) {
        sides.microphone.push_back(i < 140 ? -20 : -70);
        sides.system.push_back(i >= 170 ? -25 : (i < 140 ? -60 : -100));
    }
    in.sides = sides;
    in.words = say("what is the budget for the launch", 1000);
    auto later = say("the budget is ten thousand", 86'000);
    in.words.insert(in.words.end(), later.begin(), later.end());
    in.names[2] = "Bruno";
    const auto a = analyze(in);

    ASSERT_EQ(a.transcript.size(), 2u);
    EXPECT_EQ(a.transcript[0].speaker, 1);
    EXPECT_TRUE(a.transcript[0].question);
    EXPECT_EQ(a.transcript[1].speaker, 2);
    EXPECT_FALSE(a.transcript[1].question);
    ASSERT_EQ(a.speakers.size(), 2u);
    EXPECT_EQ(a.speakers[0].side, "microphone");
    EXPECT_EQ(a.speakers[1].name, "Bruno");

    ASSERT_TRUE(cue(a, "talkTime"));
    EXPECT_EQ(cue(a, "talkTime")->data["shares"]["1"], 93);
    ASSERT_TRUE(cue(a, "monologue"));
    EXPECT_EQ(cue(a, "monologue")->data["durationMs"], 70'000);
    ASSERT_TRUE(cue(a, "silence"));
    EXPECT_EQ(cue(a, "silence")->data["longestMs"], 15'000);
    EXPECT_EQ(cue(a, "silence")->atMs, 70'000);
    ASSERT_TRUE(cue(a, "questions"));
    EXPECT_EQ(cue(a, "questions")->data["count"], 1);
    for (const auto& c : a.cues) {
        EXPECT_GE(c.weight, 0.0) << c.kind;
        EXPECT_LE(c.weight, 1.0) << c.kind;
    }
    EXPECT_NE(a.summary.find("**Bruno** (01:26): the budget is ten thousand"), std::string::npos) << a.summary;
}

TEST(Analysis, ShortPausesDoNotBreakAMonologueButTheOtherSideDoes) {
    AnalysisInput in;
    SideLevels sides;
    for (int i = 0; i < 130; ++i) {
        // The microphone talks for 65 s with a 1.5 s pause at 30 s; at 40 s the system side answers once.
        const bool pause = i >= 60 && i < 63;
        sides.microphone.push_back(pause ? -100 : -20);
        sides.system.push_back(i == 80 ? -10 : -100);
    }
    in.sides = sides;
    const auto a = analyze(in);
    EXPECT_FALSE(cue(a, "monologue")) << "40 s then 25 s: neither run reaches a minute";
    sides.system[80] = -100;
    in.sides = sides;
    ASSERT_TRUE(cue(analyze(in), "monologue"));
}

TEST(Analysis, WithoutLevelsEveryWordIsOneSpeakerAndNothingHeardMeansNoSummary) {
    AnalysisInput in;
    in.words = say("hello there how are you doing today", 0);
    in.monoLevels.assign(20, -20);
    auto a = analyze(in);
    ASSERT_EQ(a.speakers.size(), 1u);
    EXPECT_EQ(a.speakers[0].side, "unknown");
    EXPECT_FALSE(a.summary.empty());
    EXPECT_TRUE(analyze(AnalysisInput{}).summary.empty());
}

TEST(SideLevelsCoding, HeaderAndJsonRefuseWhatIsOutOfRange) {
    auto s = sideLevelsFromHeader("500;-20,-100;-30,0");
    ASSERT_TRUE(s);
    EXPECT_EQ(s->microphone, (std::vector<int>{-20, -100}));
    EXPECT_FALSE(sideLevelsFromHeader("500;-20,5;-30"));
    EXPECT_FALSE(sideLevelsFromHeader("5;-20;-30"));
    EXPECT_FALSE(sideLevelsFromHeader("500;-20"));
    EXPECT_FALSE(sideLevelsFromJson(nlohmann::json{{"windowMs", 500}, {"microphone", {-101}}, {"system", nlohmann::json::array()}}));
    SideLevels placed;
    placed.place(*s, 30'000);
    EXPECT_EQ(placed.microphone.size(), 62u);
    EXPECT_EQ(placed.microphone[60], -20);
}

}  // namespace
}  // namespace vell::devserver
