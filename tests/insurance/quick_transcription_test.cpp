// The quick-transcription call against the reference service: drafts arrive while the
// request still runs, the final line wins, and each way the stream can go wrong ends in
// its own error.
#include <gtest/gtest.h>

#include <atomic>

#include "insurance/quick_transcription.h"
#include "tests/insurance/adts_fixture.h"
#include "tests/service/http_fixture.h"

namespace vell::insurance {
namespace {

using service::APIError;
using nlohmann::json;

struct QuickTranscription : service::testing::ServiceTest {
    std::filesystem::path audio;
    void SetUp() override {
        ServiceTest::SetUp();
        if (IsSkipped()) return;
        signIn();
        // 250 frames of 64 ms: 16.0 s in 25000 bytes.
        audio = home.root() / "selection.aac";
        testing::writeFile(audio, testing::adtsFrames(250));
    }
    void streamFault(const std::string& mode, json extra = json::object()) {
        json rule = {{"method", "POST"}, {"path", "insurance/transcribe"}, {"action", "stream"}, {"mode", mode}};
        for (auto& [k, v] : extra.items()) rule[k] = v;
        server->addFault(rule);
    }
};

TEST_F(QuickTranscription, DraftsReachTheCallerBeforeTheFinalLineIsSent) {
    // The service holds its final line until released; the release is sent from the draft
    // callback, so the call can only finish if the draft arrived while it was running.
    streamFault("hold");
    std::vector<std::string> drafts;
    auto result = quickTranscribe(*client, audio, [&](const std::string& text) {
        if (drafts.empty()) server->admin("POST", "/admin/insurance/transcribe/release");
        drafts.push_back(text);
    });
    ASSERT_TRUE(result) << result.error().description(Language::English);
    EXPECT_EQ(drafts, (std::vector<std::string>{"Recovered 16.0 seconds", "Recovered 16.0 seconds of audio"}));
    EXPECT_EQ(result->text, "Recovered 16.0 seconds of audio (25000 bytes, 250 frames).");
    EXPECT_EQ(result->language, "en");
    ASSERT_TRUE(result->durationS);
    EXPECT_DOUBLE_EQ(*result->durationS, 16.0);
    EXPECT_TRUE(result->tookMs.has_value());
}

TEST_F(QuickTranscription, MalformedLinesAreSkipped) {
    streamFault("malformed");
    int drafts = 0;
    auto result = quickTranscribe(*client, audio, [&](const std::string&) { drafts++; });
    ASSERT_TRUE(result) << result.error().description(Language::English);
    EXPECT_EQ(drafts, 2);
    EXPECT_EQ(result->text, "Recovered 16.0 seconds of audio (25000 bytes, 250 frames).");
}

TEST_F(QuickTranscription, EachBrokenStreamEndsInItsOwnError) {
    streamFault("error");
    auto failed = quickTranscribe(*client, audio, {});
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error().kind, APIError::Kind::http);
    EXPECT_EQ(failed.error().status, 500);
    EXPECT_EQ(failed.error().code, "transcription_failed");
    EXPECT_FALSE(failed.error().message.has_value());

    streamFault("draftsOnly");
    auto drafty = quickTranscribe(*client, audio, {});
    ASSERT_FALSE(drafty);
    EXPECT_EQ(drafty.error().kind, APIError::Kind::decoding);
    EXPECT_EQ(drafty.error().detail, "quick transcript");

    // Cut after two drafts: both were shown, and the end is a transfer failure, not a text.
    streamFault("cut");
    int drafts = 0;
    auto cut = quickTranscribe(*client, audio, [&](const std::string&) { drafts++; });
    ASSERT_FALSE(cut);
    EXPECT_EQ(drafts, 2);
    EXPECT_EQ(cut.error().kind, APIError::Kind::transport);

    server->addFault({{"method", "POST"}, {"path", "insurance/transcribe"}, {"action", "status"}, {"status", 409},
                      {"body", {{"ok", false}, {"error", "transcription_in_progress"}}}});
    auto busy = quickTranscribe(*client, audio, {});
    ASSERT_FALSE(busy);
    EXPECT_EQ(busy.error().status, 409);
    EXPECT_EQ(busy.error().code, "transcription_in_progress");

    // Still usable afterwards: nothing stayed marked as running.
    EXPECT_TRUE(quickTranscribe(*client, audio, {}));
}

TEST_F(QuickTranscription, SignedOutIsRefusedAsUnauthenticated) {
    client->clearSession();
    auto result = quickTranscribe(*client, audio, {});
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().kind, APIError::Kind::unauthenticated);
}

// The line rules on their own, fed in awkward pieces.
TEST(QuickStreamReader, LastCandidateWinsAndDraftsWithoutTextAreIgnored) {
    std::vector<std::string> drafts;
    QuickStreamReader reader([&](const std::string& t) { drafts.push_back(t); });
    const std::string stream =
        "{\"stage\":\"draft\"}\n{\"stage\":\"draft\",\"text\":\"he\"}\n{\"text\":\"first\",\"language\":\"en\"}\n"
        "{\"stage\":\"final\"}\n{\"stage\":\"x\",\"text\":\"second\",\"durationS\":2}\n{\"text\":\"ignored\"";
    for (char c : stream) ASSERT_TRUE(reader.feed(&c, 1));
    // The unterminated last line is read at the end, and it is not JSON.
    auto result = reader.finish();
    ASSERT_TRUE(result);
    EXPECT_EQ(result->text, "second");
    EXPECT_FALSE(result->language.has_value());
    EXPECT_EQ(result->durationS, 2.0);
    EXPECT_EQ(drafts, std::vector<std::string>{"he"});

    QuickStreamReader onlyDrafts({});
    const std::string draftOnly = "{\"stage\":\"draft\",\"text\":\"a\"}\n";
    onlyDrafts.feed(draftOnly.data(), draftOnly.size());
    auto none = onlyDrafts.finish();
    ASSERT_FALSE(none);
    EXPECT_EQ(none.error().detail, "quick transcript");
}

}  // namespace
}  // namespace vell::insurance
