#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "recording/pending_recording_coding.h"

namespace vell::recording {
namespace {

using nlohmann::json;
using Status = PendingRecording::Status;

TEST(PendingCoding, MinimalEntryDecodesWithEveryOptionalAbsentAndReferenceDateEpoch) {
    auto list = coding::decodeList(
        R"([{"id":"A1","fileURL":"file:///data/Vell/Recordings/vell_rec_A1.aac","startedAt":0,"status":"ready","attempts":2}])");
    ASSERT_TRUE(list);
    ASSERT_EQ(list->size(), 1u);
    const auto& r = list->front();
    EXPECT_EQ(r.id, "A1");
    EXPECT_EQ(r.fileURL, "/data/Vell/Recordings/vell_rec_A1.aac");
    // 0 is 2001-01-01 00:00:00 UTC, which is 978307200 seconds after 1970.
    EXPECT_EQ(std::chrono::duration_cast<std::chrono::seconds>(r.startedAt.time_since_epoch()).count(), 978307200);
    EXPECT_EQ(r.status, Status::ready);
    EXPECT_EQ(r.attempts, 2);
    EXPECT_FALSE(r.finishedAt);
    EXPECT_FALSE(r.lastError);
    EXPECT_FALSE(r.lastErrorIsNetwork);
    EXPECT_FALSE(r.accountID);
    EXPECT_FALSE(r.liveSessionID);
    EXPECT_FALSE(r.discardedAt);
}

TEST(PendingCoding, EncodesExactKeysInOrderAndOmitsAbsentOptionals) {
    PendingRecording r;
    r.id = "B2";
    r.fileURL = "/home/u/My Recordings/vell_rec_B2.aac";
    r.startedAt = fromSecondsSinceReferenceDate(1.5);
    r.status = Status::recording;
    EXPECT_EQ(coding::encodeList({r}),
              R"([{"id":"B2","fileURL":"file:///home/u/My%20Recordings/vell_rec_B2.aac","startedAt":1.5,)"
              R"("status":"recording","attempts":0}])");

    r.finishedAt = fromSecondsSinceReferenceDate(10.25);
    r.status = Status::discarded;
    r.lastError = "No connection";
    r.attempts = 3;
    r.lastErrorIsNetwork = true;
    r.accountID = "acct";
    r.liveSessionID = "live-1";
    r.discardedAt = fromSecondsSinceReferenceDate(20);
    auto encoded = coding::encode(r);
    std::vector<std::string> keys;
    for (auto& [key, value] : encoded.items()) keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"id", "fileURL", "startedAt", "finishedAt", "status", "lastError", "attempts",
                                              "lastErrorIsNetwork", "accountID", "liveSessionID", "discardedAt"}));
    EXPECT_EQ(encoded["discardedAt"], 20.0);
    EXPECT_EQ(encoded["status"], "discarded");

    // Everything comes back field for field, dates to the microsecond.
    auto back = coding::decodeList(coding::encodeList({r}));
    ASSERT_TRUE(back);
    EXPECT_EQ(back->front(), r);
}

TEST(PendingCoding, RealDatesSurviveTheRoundTrip) {
    PendingRecording r;
    r.id = "C";
    r.fileURL = "/x/vell_rec_C.aac";
    r.startedAt = WallTime{std::chrono::microseconds{1'790'000'123'456'789}};
    r.status = Status::uploaded;
    auto back = coding::decodeList(coding::encodeList({r}));
    ASSERT_TRUE(back);
    // Stored as a double, like every date of the application's files: exact to well
    // under a microsecond.
    EXPECT_LT(std::chrono::abs(back->front().startedAt - r.startedAt), std::chrono::microseconds(1));
}

TEST(PendingCoding, OneBadEntryFailsTheWholeDocument) {
    const char* good = R"({"id":"A","fileURL":"file:///a.aac","startedAt":1,"status":"ready","attempts":0})";
    for (std::string bad : {
             R"({"id":"B","fileURL":"file:///b.aac","startedAt":1,"status":"paused","attempts":0})",   // unknown status
             R"({"id":"B","fileURL":"file:///b.aac","startedAt":1,"status":"ready"})",                 // no attempts
             R"({"fileURL":"file:///b.aac","startedAt":1,"status":"ready","attempts":0})",             // no id
             R"({"id":"B","fileURL":"file:///b.aac","startedAt":"2026-01-01","status":"ready","attempts":0})",  // ISO date
             R"({"id":"B","fileURL":"file:///b.aac","startedAt":1,"status":"ready","attempts":0,"accountID":7})",
         }) {
        EXPECT_FALSE(coding::decodeList("[" + std::string(good) + "," + bad + "]")) << bad;
    }
    EXPECT_FALSE(coding::decodeList(good));  // not an array
    EXPECT_FALSE(coding::decodeList("[{"));
    EXPECT_TRUE(coding::decodeList("[]"));
    // Null optionals read as absent.
    auto nulls = coding::decodeList(
        R"([{"id":"A","fileURL":"file:///a.aac","startedAt":1,"status":"failed","attempts":1,"finishedAt":null,"accountID":null}])");
    ASSERT_TRUE(nulls);
    EXPECT_FALSE(nulls->front().accountID);
}

TEST(PendingCoding, UnknownKeysAreSkippedAndTextIsEscapedBothWays) {
    auto list = coding::decodeList(
        R"([{"id":"A","note":{"nested":[1,{"x":null}]},"fileURL":"file:///a.aac","startedAt":1,"status":"ready",)"
        R"("tags":["a","b"],"attempts":0}])");
    ASSERT_TRUE(list);
    EXPECT_EQ(list->front().id, "A");
    // A known key holding an object is a type error, not something to skip.
    EXPECT_FALSE(coding::decodeList(
        R"([{"id":{"v":1},"fileURL":"file:///a.aac","startedAt":1,"status":"ready","attempts":0}])"));
    EXPECT_FALSE(coding::decodeList(R"([{"id":"A","fileURL":"file:///a.aac","startedAt":1,"status":"ready","attempts":1.5}])"));
    EXPECT_FALSE(coding::decodeList(R"([{"id":"A","fileURL":"file:///a.aac","startedAt":1,"status":"ready","attempts":0}] x)"));

    PendingRecording r;
    r.id = "quote\"back\\slash\nline\ttab\x01-ctl";
    r.fileURL = "/data/Grabaciones de reunión/vell_rec_ñ.aac";
    r.lastError = "Sin conexión — reintentá \"pronto\"";
    r.status = Status::failed;
    std::string text = coding::encodeList({r});
    EXPECT_NE(text.find(R"(\u0001)"), std::string::npos);
    EXPECT_TRUE(nlohmann::json::accept(text));
    auto back = coding::decodeList(text);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->front(), r);
}

}  // namespace
}  // namespace vell::recording
