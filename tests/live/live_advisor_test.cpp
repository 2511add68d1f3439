// The live advisor's send loop on an injected clock: segments go out one at a time in order,
// a service that does not answer is retried with backoff without losing the order, no more
// than a few segments wait on disk, what is unsent when the recording is uploaded is
// dropped, a rejected segment or unreadable tiles become a sentence, and the session is
// closed once the last segment went out. The service is a fake that the test answers.
#include <gtest/gtest.h>

#include <deque>
#include <fstream>

#include "base/manual_executor.h"
#include "live/live_advisor.h"
#include "live/live_messages.h"
#include "tests/support/temp_home.h"

namespace vell::live {
namespace {

namespace fs = std::filesystem;
using service::APIError;
using service::UploadError;

// A service whose answers the test gives, one call at a time.
class FakeLiveApi final : public LiveApi {
public:
    struct Call {
        std::string what;  // open, chunk, tiles, close
        std::string session;
        int index = -1;
        SideLevels sides;
        Done<Unit> done;
        Done<std::vector<Tile>> tilesDone;
    };
    void open(const std::string& s, const std::string&, Done<Unit> done) override { calls.push_back({"open", s, -1, {}, done, {}}); }
    void sendChunk(const std::string& s, int index, long long, const fs::path&, const SideLevels& sides, Done<Unit> done) override {
        calls.push_back({"chunk", s, index, sides, done, {}});
    }
    void tiles(const std::string& s, Done<std::vector<Tile>> done) override { calls.push_back({"tiles", s, -1, {}, {}, done}); }
    void close(const std::string& s, Done<Unit> done) override { calls.push_back({"close", s, -1, {}, done, {}}); }

    // Answers the oldest call that is not a tiles poll.
    Call answer(std::optional<UploadError> error = std::nullopt) {
        for (auto it = calls.begin(); it != calls.end(); ++it) {
            if (it->what == "tiles") continue;
            Call c = *it;
            calls.erase(it);
            if (error) {
                c.done(unexpected(*error));
            } else {
                c.done(Unit{});
            }
            return c;
        }
        ADD_FAILURE() << "no call waits for an answer";
        return {};
    }
    size_t waiting(const std::string& what) const {
        return std::count_if(calls.begin(), calls.end(), [&](const Call& c) { return c.what == what; });
    }
    std::deque<Call> calls;
};

UploadError offline() { return UploadError(APIError::transport(7, "Could not connect", true)); }
UploadError rejected() { return UploadError(APIError::http(422, std::string("chunk_rejected"), std::nullopt)); }

class LiveAdvisorTest : public ::testing::Test {
protected:
    void SetUp() override {
        recording::LiveSegmentWriter::Options options;
        options.directory = home.tmp() / "segments";
        options.mainExecutor = &main;
        fs::create_directories(options.directory);
        writer = std::make_shared<recording::LiveSegmentWriter>(options);
        meter = std::make_shared<SideLevelMeter>();
        advisor = std::make_unique<LiveAdvisor>(api, writer, meter, main, LiveAdvisorSettings{});
        hooks = advisor->hooks();
    }
    // A sealed segment of the session as the writer hands it over.
    fs::path seal(const std::string& session, int index) {
        char name[64];
        std::snprintf(name, sizeof name, "seg_%s_%06d.m4a", session.c_str(), index);
        const fs::path file = writer->directory() / name;
        std::ofstream(file) << "segment";
        writer->onSegment(file);
        return file;
    }
    std::vector<int> sentIndexes() const { return sent; }
    void answerChunks(int count) {
        for (int i = 0; i < count; ++i) {
            auto c = api.answer();
            if (c.what == "chunk") sent.push_back(c.index);
            main.runPending();
        }
    }

    test::TempHome home;
    ManualClock clock;
    ManualExecutor main{clock};
    FakeLiveApi api;
    std::shared_ptr<recording::LiveSegmentWriter> writer;
    std::shared_ptr<SideLevelMeter> meter;
    std::unique_ptr<LiveAdvisor> advisor;
    recording::LiveAdvisorHooks hooks;
    std::vector<int> sent;
};

TEST_F(LiveAdvisorTest, SegmentsGoOutInOrderThroughAnOutageAndTheSessionClosesAfterTheLast) {
    const auto session = *hooks.begin("REC");
    EXPECT_TRUE(hooks.isActive());
    ASSERT_EQ(api.calls.front().what, "open");
    api.answer();
    const auto first = seal(session, 0);
    seal(session, 1);
    ASSERT_EQ(api.waiting("chunk"), 1u);  // one at a time
    EXPECT_EQ(api.calls.back().index, 0);

    // The service goes away: the same segment is tried again later, never the next one first.
    api.answer(offline());
    EXPECT_EQ(advisor->advice.get().message, messages::kServiceUnreachable.str());
    EXPECT_TRUE(fs::exists(first));
    main.advance(1.9);
    EXPECT_EQ(api.waiting("chunk"), 0u);
    main.advance(0.2);
    ASSERT_EQ(api.waiting("chunk"), 1u);
    EXPECT_EQ(api.calls.back().index, 0);
    api.answer(offline());
    main.advance(3.9);  // backoff doubled
    EXPECT_EQ(api.waiting("chunk"), 0u);
    main.advance(0.2);
    answerChunks(1);
    EXPECT_FALSE(fs::exists(first)) << "released once acknowledged";
    EXPECT_FALSE(advisor->advice.get().message);

    seal(session, 2);
    advisor->recordingStopped("REC");
    EXPECT_FALSE(hooks.isActive());
    answerChunks(2);
    EXPECT_EQ(sentIndexes(), (std::vector<int>{0, 1, 2}));
    ASSERT_EQ(api.waiting("close"), 1u);
    api.answer();
    main.runPending();
    EXPECT_TRUE(advisor->advice.get().closed);
    EXPECT_EQ(advisor->advice.get().segmentsSent, 3);
}

TEST_F(LiveAdvisorTest, NoMoreThanFourSegmentsWaitAndWhatIsUnsentGoesOnceTheRecordingIsUploaded) {
    const auto session = *hooks.begin("REC");
    api.answer(offline());  // the open cannot get through
    std::vector<fs::path> files;
    for (int i = 0; i < 7; ++i) files.push_back(seal(session, i));
    EXPECT_EQ(advisor->advice.get().segmentsWaiting, 4);
    EXPECT_EQ(advisor->advice.get().segmentsDropped, 3);
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(fs::exists(files[i])) << i;  // the oldest unsent went
    for (int i = 3; i < 7; ++i) EXPECT_TRUE(fs::exists(files[i])) << i;
    EXPECT_EQ(advisor->advice.get().message, messages::kSegmentsDropped.str());
    advisor->recordingStopped("REC");

    recording::PendingRecording uploaded;
    uploaded.id = "REC";
    uploaded.liveSessionID = session;
    uploaded.status = recording::PendingRecording::Status::uploaded;
    advisor->pendingChanged({uploaded});
    for (const auto& f : files) EXPECT_FALSE(fs::exists(f)) << f;
    EXPECT_EQ(advisor->advice.get().segmentsWaiting, 0);
    // The session is still told it ended, once the service answers.
    main.advance(2.1);
    EXPECT_EQ(api.waiting("chunk"), 0u);
}

TEST_F(LiveAdvisorTest, ADiscardedRecordingsSessionIsHandedToThePurgeAndNeverClosed) {
    std::vector<std::string> purged;
    advisor->onDiscarded = [&](const std::string& id) { purged.push_back(id); };
    const auto session = *hooks.begin("REC");
    api.answer();
    const auto file = seal(session, 0);
    advisor->recordingStopped("REC");
    recording::PendingRecording discarded;
    discarded.id = "REC";
    discarded.liveSessionID = session;
    discarded.status = recording::PendingRecording::Status::discarded;
    advisor->pendingChanged({discarded});
    advisor->pendingChanged({discarded});
    EXPECT_EQ(purged, std::vector<std::string>{session});
    api.answer(offline());  // the chunk in flight when the discard came
    main.advance(120);
    EXPECT_EQ(api.waiting("chunk") + api.waiting("close"), 0u);
    EXPECT_FALSE(fs::exists(file));
    EXPECT_TRUE(advisor->settled());
}

TEST_F(LiveAdvisorTest, ARejectedSegmentIsASentenceAndTheNextOneStillGoes) {
    const auto session = *hooks.begin("REC");
    api.answer();
    seal(session, 0);
    seal(session, 1);
    api.answer(rejected());
    main.runPending();
    EXPECT_EQ(advisor->advice.get().message, messages::kSegmentRejected.str());
    ASSERT_EQ(api.waiting("chunk"), 1u);
    EXPECT_EQ(api.calls.back().index, 1);
}

TEST_F(LiveAdvisorTest, TilesArePolledWhileRecordingHeaviestFirstAndUnreadableOnesKeepTheLastGood) {
    const auto session = *hooks.begin("REC");
    api.answer();
    main.advance(5.0);
    ASSERT_EQ(api.waiting("tiles"), 1u);
    auto poll = api.calls.back();
    api.calls.pop_back();
    poll.tilesDone(std::vector<Tile>{{"a", "silence", 0.2}, {"b", "talkTime", 0.9}});
    ASSERT_EQ(advisor->advice.get().tiles.size(), 2u);
    EXPECT_EQ(advisor->advice.get().tiles[0].id, "b");

    main.advance(5.0);
    ASSERT_EQ(api.waiting("tiles"), 1u);
    poll = api.calls.back();
    api.calls.pop_back();
    poll.tilesDone(unexpected(UploadError(APIError::decoding("not a list of tiles"))));
    EXPECT_EQ(advisor->advice.get().message, messages::kTilesUnreadable.str());
    EXPECT_EQ(advisor->advice.get().tiles.size(), 2u);
    (void)session;
}

TEST(LiveTiles, DecodingRefusesATileWithoutKindAndSentencesFollowTheLanguage) {
    EXPECT_FALSE(decodeTiles(nlohmann::json{{"tiles", {{{"id", "x"}}}}}));
    EXPECT_FALSE(decodeTiles(nlohmann::json::array()));
    auto tiles = decodeTiles(nlohmann::json::parse(
        R"({"tiles":[{"id":"t","kind":"talkTime","weight":3,"data":{"shares":{"1":70,"2":30}}},{"id":"n","kind":"newKind","text":"As sent."}]})"));
    ASSERT_TRUE(tiles);
    EXPECT_EQ((*tiles)[0].weight, 1.0);
    setInterfaceLanguage(Language::Spanish);
    EXPECT_EQ(tileText((*tiles)[0]), "Reparto del tiempo de habla: Participante 1 70%, Participante 2 30%.");
    setInterfaceLanguage(Language::English);
    EXPECT_EQ(tileText((*tiles)[0]), "Share of the talking: Speaker 1 70%, Speaker 2 30%.");
    EXPECT_EQ(tileText((*tiles)[1]), "As sent.");
}

TEST(SideLevels, EachSideIsMeasuredOnItsOwnAndTheRangeOfASegmentIsCut) {
    SideLevelMeter meter;
    auto loud = audio::PcmBuffer::make(16000, 1, 16000);  // 1 s at -6 dBFS (RMS of 0.5)
    for (auto& v : loud->channels[0]) v = 0.5f;
    auto quiet = audio::PcmBuffer::make(48000, 2, 48000);  // 1 s of digital silence
    meter.addMicrophone(*loud);
    meter.addSystem(*quiet);
    const auto all = meter.all();
    EXPECT_EQ(all.microphone, (std::vector<int>{-6, -6}));
    EXPECT_EQ(all.system, (std::vector<int>{kSilentDb, kSilentDb}));
    EXPECT_EQ(meter.range(500, 1000).microphone.size(), 1u);
    EXPECT_EQ(all.headerValue(), "500;-6,-6;-100,-100");
    EXPECT_EQ(parseSegmentName("seg_ab-c_000012.m4a"), std::make_pair(std::string("ab-c"), 12));
    EXPECT_FALSE(parseSegmentName("seg_x.m4a"));
}

}  // namespace
}  // namespace vell::live
