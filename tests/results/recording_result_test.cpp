// Results as the service sends them: a result missing a field still shows what came and
// says so, one without id or state is refused, and the copy kept on disk reads back the same.
#include <gtest/gtest.h>

#include "base/language.h"
#include "results/recording_result.h"
#include "results/results_messages.h"

namespace vell::results {
namespace {

using nlohmann::json;

json processed() {
    return json::parse(R"({"id":"rec_1","state":"processed","createdAt":1795000000000,"durationMs":61000,
      "summary":"### Key points\n\n- **Speaker 1** (00:01): the budget\n",
      "transcript":[{"speaker":1,"startMs":1000,"endMs":2000,"text":"the budget"},{"speaker":2,"startMs":3000,"endMs":4000,"text":"yes"}],
      "speakers":[{"index":1,"side":"microphone","name":null,"talkMs":1000},{"index":2,"side":"system","name":"Bruno","talkMs":1000}],
      "cues":[{"id":"talk-time","kind":"talkTime","weight":0.5,"atMs":0,"data":{"shares":{"1":50,"2":50}}}]})");
}

TEST(RecordingResult, AProcessedResultReadsWholeAndKeepsItsFormOnDisk) {
    auto r = decodeResult(processed());
    ASSERT_TRUE(r);
    EXPECT_FALSE(r->incomplete);
    EXPECT_EQ(r->transcript.size(), 2u);
    EXPECT_EQ(r->speakerName(2), "Bruno");
    setInterfaceLanguage(Language::Spanish);
    EXPECT_EQ(r->speakerName(1), "Participante 1");
    EXPECT_EQ(r->stateSentence(), "Procesada.");
    setInterfaceLanguage(Language::English);
    EXPECT_EQ(decodeResult(encodeResult(*r)), r);
    EXPECT_EQ(conversationClock(3'725'000), "1:02:05");
    EXPECT_EQ(conversationClock(61'000), "01:01");
}

TEST(RecordingResult, AMissingFieldIsShownAsIncompleteAndStaysSoWhenKept) {
    for (const char* field : {"summary", "transcript", "speakers", "cues"}) {
        json j = processed();
        j.erase(field);
        auto r = decodeResult(j);
        ASSERT_TRUE(r) << field;
        EXPECT_TRUE(r->incomplete) << field;
        EXPECT_TRUE(decodeResult(encodeResult(*r))->incomplete) << field;
    }
    json badLine = processed();
    badLine["transcript"][0].erase("text");
    auto r = decodeResult(badLine);
    ASSERT_TRUE(r);
    EXPECT_TRUE(r->incomplete);
    EXPECT_EQ(r->transcript.size(), 1u);
    EXPECT_FALSE(decodeResult(json{{"state", "processed"}}));
    EXPECT_FALSE(decodeResult(json{{"id", "rec_1"}}));
    EXPECT_FALSE(decodeResult(json("<html>")));
    // Not processed yet: nothing more is expected.
    auto queued = decodeResult(json{{"id", "rec_2"}, {"state", "queued"}});
    ASSERT_TRUE(queued);
    EXPECT_FALSE(queued->incomplete);
    EXPECT_FALSE(queued->finished());
}

}  // namespace
}  // namespace vell::results
