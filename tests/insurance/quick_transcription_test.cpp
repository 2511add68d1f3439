// The quick-transcription call against the reference service, which really recognises
// spoken English: drafts arrive while the request still runs, the final line wins, and each
// way the stream can go wrong ends in its own error.
#include <gtest/gtest.h>

#include <atomic>

#include "insurance/quick_transcription.h"
#include "tests/insurance/adts_fixture.h"
#include "tests/service/http_fixture.h"
#include "tests/support/spoken_english.h"

namespace vell::insurance {
namespace {

using service::APIError;
using nlohmann::json;

struct QuickTranscription : service::testing::ServiceTest {
    static constexpr const char* kSaid = "good morning everybody. the weather is nice today and we are going to the park";
    std::filesystem::path audio;
    double seconds = 0;
    void SetUp() override {
        ServiceTest::SetUp();
        if (IsSkipped()) return;
        signIn();
        const auto speech = test::spokenEnglish(kSaid);
        ASSERT_FALSE(speech.empty()) << "espeak-ng and sox make the test speech";
        seconds = static_cast<double>(speech.size()) / 16000;
        audio = home.root() / "selection.aac";
        testing::writeFile(audio, test::encodeAac(speech));
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
    ASSERT_FALSE(drafts.empty());
    // A draft is the words heard so far; the first comes from the first second or two.
    EXPECT_FALSE(drafts.front().empty());
    EXPECT_LT(test::wordsOf(drafts.front()).size(), test::wordsOf(result->text).size()) << drafts.front();
    EXPECT_GE(test::wordsHeard(kSaid, result->text), 6) << result->text;
    EXPECT_EQ(result->language, "en");
    ASSERT_TRUE(result->durationS);
    EXPECT_NEAR(*result->durationS, seconds, 0.15);  // the AAC encoder's padding
    ASSERT_TRUE(result->tookMs.has_value());
    EXPECT_GT(*result->tookMs, 0);
}

TEST_F(QuickTranscription, MalformedLinesAreSkipped) {
    streamFault("malformed");
    int drafts = 0;
    auto result = quickTranscribe(*client, audio, [&](const std::string&) { drafts++; });
    ASSERT_TRUE(result) << result.error().description(Language::English);
    EXPECT_GE(drafts, 2);
    EXPECT_GE(test::wordsHeard(kSaid, result->text), 6) << result->text;
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
    EXPECT_EQ(drafty.error().kind, APIError::Kind::decoding) << drafty.error().description(Language::English);
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

    // Bytes that are not audio are refused before the account is marked busy.
    const auto junk = home.root() / "junk.aac";
    testing::writeFile(junk, std::string(4000, 'x'));
    auto unreadable = quickTranscribe(*client, junk, {});
    ASSERT_FALSE(unreadable);
    EXPECT_EQ(unreadable.error().status, 400);
    EXPECT_EQ(unreadable.error().code, "unreadable_audio");

    // Still usable afterwards: nothing stayed marked as running.
    EXPECT_TRUE(quickTranscribe(*client, audio, {}));
}

TEST_F(QuickTranscription, SilenceIsAnEmptyFinalTextNotAnError) {
    const auto quiet = home.root() / "quiet.aac";
    testing::writeFile(quiet, test::encodeAac(std::vector<int16_t>(16000 * 3, 0)));
    int drafts = 0;
    auto result = quickTranscribe(*client, quiet, [&](const std::string&) { drafts++; });
    ASSERT_TRUE(result) << result.error().description(Language::English);
    EXPECT_EQ(result->text, "");
    EXPECT_EQ(drafts, 0);
    ASSERT_TRUE(result->durationS);
    EXPECT_NEAR(*result->durationS, 3.0, 0.15);
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
