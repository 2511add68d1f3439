// The resumable upload against the reference service, with faults injected on the wire.
#include "base/runtime.h"
#include "service/resumable_upload.h"
#include "tests/service/http_fixture.h"

namespace vell::service::testing {
namespace {

namespace fs = std::filesystem;
constexpr long long MiB = 1 << 20;

int multipartBodiesIn(const fs::path& dir) {
    int n = 0;
    for (const auto& entry : fs::directory_iterator(dir)) n += entry.path().extension() == ".multipart";
    return n;
}

struct UploadTest : ServiceTest {
    std::unique_ptr<RecordingUploads> uploads;
    std::vector<double> progress;
    void SetUp() override {
        ServiceTest::SetUp();
        if (IsSkipped()) return;
        signIn();
        uploads = std::make_unique<RecordingUploads>(*client);
    }
    Expected<std::string, UploadError> upload(const fs::path& file, std::optional<CaptureWindow> capture = std::nullopt,
                                              Progress extra = {}) {
        return uploads->uploadRecording(file, std::nullopt, capture, [&](double f) {
            progress.push_back(f);
            if (extra) extra(f);
        });
    }
    void expectStored(const std::string& id, const fs::path& file) {
        auto r = recording(id);
        ASSERT_TRUE(r.is_object()) << server->recordings().dump();
        EXPECT_EQ(r.value("bytes", -1LL), static_cast<long long>(fs::file_size(file)));
        EXPECT_EQ(r.value("sha256", ""), test::sha256File(file));
        EXPECT_EQ(r.value("filename", ""), file.filename().string());
    }
};

TEST_F(UploadTest, ChunkBoundariesAndCaptureWindow) {
    struct Case {
        long long size;
        size_t reports;  // once after the start, once per acknowledged chunk
    } cases[] = {{0, 1}, {8'388'608, 2}, {8'388'609, 3}};
    for (const auto& c : cases) {
        progress.clear();
        auto file = makeFile("vell_rec_" + std::to_string(c.size) + ".aac", c.size);
        WallTime start = fromMillisecondsSince1970(1'800'000'000'000);
        auto id = upload(file, CaptureWindow{start, start + std::chrono::milliseconds(90'500)});
        ASSERT_TRUE(id) << id.error().description(Language::English) << server->log();
        EXPECT_EQ(progress.size(), c.reports) << c.size;
        EXPECT_EQ(progress.front(), 0.0);
        EXPECT_EQ(progress.back(), c.size == 0 ? 0.0 : 1.0);
        expectStored(*id, file);
        auto r = recording(*id);
        EXPECT_EQ(r.value("mimeType", ""), "audio/aac");
        EXPECT_EQ(r.value("captureStartedAt", 0LL), 1'800'000'000'000);
        EXPECT_EQ(r.value("captureEndedAt", 0LL), 1'800'000'090'500);
    }
}

TEST_F(UploadTest, ResumesAfterTheConnectionIsCutMidChunk) {
    auto file = makeFile("vell_rec_cut.m4a", 20 * MiB);
    server->addFault({{"method", "PUT"}, {"path", "/part"}, {"action", "closeAfterBytes"}, {"bytes", 3 * MiB}});
    auto cut = upload(file);
    ASSERT_FALSE(cut);
    EXPECT_TRUE(cut.error().isNetwork()) << cut.error().description(Language::English);
    auto held = server->uploads();
    ASSERT_EQ(held.size(), 1u);
    EXPECT_EQ(held[0].value("bytesReceived", -1LL), 3 * MiB);
    progress.clear();
    auto id = upload(file);
    ASSERT_TRUE(id) << id.error().description(Language::English);
    EXPECT_DOUBLE_EQ(progress.front(), 3.0 / 20.0);  // resumed where the service stopped counting
    expectStored(*id, file);
    EXPECT_EQ(recording(*id).value("mimeType", ""), "audio/mp4");
}

TEST_F(UploadTest, ResumesAfterTheServerRestarts) {
    auto file = makeFile("vell_rec_restart.aac", 20 * MiB);
    auto crashed = upload(file, std::nullopt, [&](double fraction) {
        if (fraction > 0) server->kill();  // after the first acknowledged chunk
    });
    ASSERT_FALSE(crashed);
    EXPECT_TRUE(crashed.error().isNetwork());
    EXPECT_EQ(crashed.error().description(Language::English), "No connection.");
    server->start();
    progress.clear();
    auto id = upload(file);
    ASSERT_TRUE(id) << id.error().description(Language::English) << server->log();
    EXPECT_DOUBLE_EQ(progress.front(), 8.0 / 20.0);
    expectStored(*id, file);
}

TEST_F(UploadTest, ConflictMovesTheOffsetForwardAndBackAndPartialAcksAreFollowed) {
    auto file = makeFile("vell_rec_conflict.aac", 20 * MiB);
    // The service claims 4 MiB it does not hold, then corrects itself to 0 on the next part;
    // later it keeps only 1000 bytes of a chunk.
    server->addFault({{"method", "PUT"}, {"path", "/part"}, {"action", "conflict"}, {"bytesReceived", 4 * MiB}});
    auto id = upload(file, std::nullopt, [&](double fraction) {
        if (progress.size() == 4) {  // start, 4 MiB, 0 (real mismatch), first full chunk
            server->addFault({{"method", "PUT"}, {"path", "/part"}, {"action", "partialAck"}, {"bytes", 1000}});
        }
        (void)fraction;
    });
    ASSERT_TRUE(id) << id.error().description(Language::English) << server->log();
    std::vector<double> expected = {0, 4.0 / 20, 0, 8.0 / 20, (8.0 * MiB + 1000) / (20.0 * MiB),
                                    (16.0 * MiB + 1000) / (20.0 * MiB), 1.0};
    ASSERT_EQ(progress.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) EXPECT_DOUBLE_EQ(progress[i], expected[i]) << i;
    expectStored(*id, file);
}

int partRequestsIn(const std::string& log, const std::string& status) {
    int n = 0;
    for (std::size_t at = 0; (at = log.find("/part " + status, at)) != std::string::npos; ++at) ++n;
    return n;
}

TEST_F(UploadTest, ConflictsThatNeverMoveTheOffsetEndTheCallInsteadOfLooping) {
    auto file = makeFile("vell_rec_stuck.aac", 20 * MiB);
    // Every part answered with "you are at 0": the offset never gets anywhere.
    server->addFault({{"method", "PUT"}, {"path", "/part"}, {"action", "conflict"}, {"bytesReceived", 0}, {"times", 1000}});
    auto stuck = upload(file);
    ASSERT_FALSE(stuck);
    EXPECT_FALSE(stuck.error().isNetwork());
    // The service logs a request after answering it: give its last line a moment to land.
    for (int i = 0; i < 40 && partRequestsIn(server->log(), "409") < kMaxStalledResyncs; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(partRequestsIn(server->log(), "409"), kMaxStalledResyncs) << server->log();

    // After a first part went through, corrections back to where it already was count too;
    // a correction forward is progress and starts the count again.
    server->clearFaults();
    auto held = upload(file, std::nullopt, [&](double fraction) {
        if (fraction > 0 && fraction < 0.5) {
            server->addFault({{"method", "PUT"}, {"path", "/part"}, {"action", "conflict"}, {"bytesReceived", 8 * MiB},
                              {"times", 1000}});
        }
    });
    ASSERT_FALSE(held);
    server->clearFaults();
    auto id = upload(file);
    ASSERT_TRUE(id) << id.error().description(Language::English) << server->log();
    expectStored(*id, file);
}

TEST_F(UploadTest, AServiceThatCreepsAByteAtATimeIsAsStuckAsOneThatNeverMoves) {
    auto file = makeFile("vell_rec_creep.aac", 20 * MiB);
    struct Case {
        const char* name;
        nlohmann::json fault;
    } cases[] = {
        {"409 one byte on", {{"method", "PUT"}, {"path", "/part"}, {"action", "conflict"}, {"offsetDelta", 1}, {"times", 1000}}},
        {"one byte acknowledged", {{"method", "PUT"}, {"path", "/part"}, {"action", "partialAck"}, {"bytes", 1}, {"times", 1000}}},
    };
    for (const auto& c : cases) {
        server->clearFaults();
        ASSERT_LT(server->log().size(), 3000u) << "the log is read back as its last 4000 characters";
        const int before = partRequestsIn(server->log(), "");
        server->addFault(c.fault);
        auto crept = upload(file);
        ASSERT_FALSE(crept) << c.name;
        EXPECT_FALSE(crept.error().isNetwork()) << c.name;
        for (int i = 0; i < 40 && partRequestsIn(server->log(), "") - before < kMaxStalledResyncs; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        EXPECT_EQ(partRequestsIn(server->log(), "") - before, kMaxStalledResyncs) << c.name << server->log();
    }
    server->clearFaults();
    auto id = upload(file);
    ASSERT_TRUE(id) << id.error().description(Language::English) << server->log();
    expectStored(*id, file);
}

TEST_F(UploadTest, FinishedUploadsReturnTheirIdWithoutSendingTheFile) {
    auto file = makeFile("vell_rec_done.aac", 3 * MiB);
    auto first = upload(file);
    ASSERT_TRUE(first);
    progress.clear();
    auto again = upload(file);
    ASSERT_TRUE(again);
    EXPECT_EQ(*again, *first);
    EXPECT_TRUE(progress.empty());  // "done" at the start: nothing sent, nothing reported

    auto other = makeFile("vell_rec_final.aac", 3 * MiB);
    server->addFault({{"method", "PUT"}, {"path", "/part"}, {"action", "status"}, {"status", 409},
                      {"body", {{"ok", false}, {"error", "already_finalized"}, {"recordingId", "rec-elsewhere"}}}});
    auto finalized = upload(other);
    ASSERT_TRUE(finalized);
    EXPECT_EQ(*finalized, "rec-elsewhere");
}

TEST_F(UploadTest, LostSessionAndBrokenAnswers) {
    auto file = makeFile("vell_rec_lost.aac", 1 * MiB);
    server->addFault({{"method", "POST"}, {"path", "upload/start"}, {"action", "status"}, {"status", 302},
                      {"headers", {{"Location", "/login"}}}});
    EXPECT_TRUE(upload(file).error().isUnauthenticated());
    server->addFault({{"method", "PUT"}, {"path", "/part"}, {"action", "status"}, {"status", 401},
                      {"body", {{"error", "unauthorized"}}}});
    EXPECT_TRUE(upload(file).error().isUnauthenticated());
    server->addFault({{"method", "POST"}, {"path", "upload/start"}, {"action", "status"}, {"status", 200},
                      {"body", {{"uploadId", "u1"}, {"bytesReceived", 5 * MiB}}}});
    auto offset = upload(file);
    ASSERT_FALSE(offset);
    EXPECT_EQ(offset.error().api->detail, "invalid resumable offset");
    server->addFault({{"method", "PUT"}, {"path", "/part"}, {"action", "status"}, {"status", 200},
                      {"body", {{"bytesReceived", 0}}}});
    auto ack = upload(file);
    ASSERT_FALSE(ack);
    EXPECT_EQ(ack.error().api->detail, "invalid resumable acknowledgement");
    EXPECT_EQ(ack.error().description(Language::English), "Unexpected server response.");
    // A conflict whose reply is not a part record as a whole gives no offset to follow.
    server->addFault({{"method", "PUT"}, {"path", "/part"}, {"action", "status"}, {"status", 409},
                      {"body", {{"bytesReceived", 0}, {"recordingId", 7}}}});
    auto conflict = upload(file);
    ASSERT_FALSE(conflict);
    EXPECT_EQ(conflict.error().description(Language::English), "Server error (409).");
    auto missing = upload(home.root() / "vell_rec_missing.aac");
    ASSERT_FALSE(missing);
    EXPECT_FALSE(missing.error().api);
    EXPECT_EQ(missing.error().description(Language::English).rfind("Cannot read the recording file: ", 0), 0u);
}

TEST_F(UploadTest, MultipartAndLiveChunk) {
    auto file = makeFile("vell_rec_form.m4a", 2 * MiB + 5);
    WallTime start = fromMillisecondsSince1970(1'800'000'000'000);
    auto id = uploads->uploadMultipart(file, "prompt-7", CaptureWindow{start, start + std::chrono::seconds(5)});
    ASSERT_TRUE(id) << id.error().description(Language::English) << server->log();
    expectStored(*id, file);
    auto r = recording(*id);
    EXPECT_EQ(r.value("summaryPromptId", ""), "prompt-7");
    EXPECT_EQ(r.value("captureEndedAt", 0LL), 1'800'000'005'000);
    EXPECT_EQ(multipartBodiesIn(home.tmp()), 0);  // the temporary body is gone
    server->addFault({{"method", "POST"}, {"path", "api/recordings"}, {"action", "status"}, {"status", 500}});
    EXPECT_FALSE(uploads->uploadMultipart(file, std::nullopt, std::nullopt));
    EXPECT_EQ(multipartBodiesIn(home.tmp()), 0);

    auto segment = makeFile("segment-0001.m4a", 40'000);
    EXPECT_TRUE(uploads->uploadLiveChunk("live-1", segment));
}

}  // namespace
}  // namespace vell::service::testing
