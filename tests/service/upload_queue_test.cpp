// The upload queue as a state machine: a scripted uploader, an in-memory pending list, a
// virtual clock.
#include <gtest/gtest.h>

#include <deque>
#include <fstream>

#include "base/manual_executor.h"
#include "base/runtime.h"
#include "service/upload_candidates.h"
#include "service/upload_queue.h"
#include "tests/support/memory_pending_store.h"
#include "tests/support/temp_home.h"

namespace vell::service {
namespace {

using recording::PendingRecording;
using Status = PendingRecording::Status;
namespace fs = std::filesystem;

using MemoryStore = test::MemoryPendingStore;

// Answers each upload with the next scripted result, either at once or when released.
class ScriptedUploader final : public RecordingUploader {
public:
    std::deque<Expected<std::string, UploadError>> script;
    std::vector<std::string> calls;
    bool hold = false;
    std::vector<Done> held;
    void upload(const PendingRecording& r, std::function<void(double)> progress, Done done) override {
        calls.push_back(r.id);
        if (progress) progress(0.5);
        if (hold) {
            held.push_back(std::move(done));
            return;
        }
        Expected<std::string, UploadError> result = script.empty() ? Expected<std::string, UploadError>("srv-" + r.id) : script.front();
        if (!script.empty()) script.pop_front();
        done(result);
    }
};

using Result = Expected<std::string, UploadError>;
Result ok(const std::string& id) { return Result(id); }
Result fail(APIError e) { return unexpected(UploadError(std::move(e))); }

struct QueueTest : ::testing::Test {
    test::TempHome home;
    ManualClock clock;
    ManualExecutor main{clock};
    MemoryStore store;
    ScriptedUploader uploader;
    double random = 0.0;  // lower end of the jitter
    UploadQueueSettings settings{.retryBaseSeconds = 10, .retryCapSeconds = 60, .retentionSeconds = 7 * 86400};
    std::unique_ptr<UploadQueue> queue;
    int signOuts = 0;

    void SetUp() override {
        runtime::install(&main, &clock);
        setInterfaceLanguage(Language::English);
    }
    void TearDown() override {
        queue.reset();
        runtime::install(nullptr, nullptr);
    }

    PendingRecording entry(const std::string& id, Status status, std::optional<std::string> account = "acct-1") {
        PendingRecording r;
        r.id = id;
        r.fileURL = home.dataHome() / ("vell_rec_" + id + ".aac");
        std::ofstream(r.fileURL) << "audio";
        r.startedAt = clock.now();
        r.finishedAt = clock.now() + std::chrono::seconds(60);
        r.status = status;
        r.accountID = std::move(account);
        return r;
    }
    void make() {
        queue = std::make_unique<UploadQueue>(store, uploader, main, clock, [this] { return random; }, settings);
        queue->onUnauthenticated = [this] { signOuts++; };
        queue->setAccount("acct-1");
    }
};

TEST(UploadCandidates, OwnAccountReadyOrFailedInListOrderMinusSkips) {
    std::vector<PendingRecording> list(7);
    const char* ids[] = {"a", "b", "c", "d", "e", "f", "g"};
    Status statuses[] = {Status::failed, Status::recording, Status::ready, Status::uploading,
                         Status::uploaded, Status::ready, Status::ready};
    std::optional<std::string> owners[] = {"me", "me", "me", "me", "me", "other", std::nullopt};
    for (int i = 0; i < 7; ++i) {
        list[i].id = ids[i];
        list[i].status = statuses[i];
        list[i].accountID = owners[i];
    }
    auto picked = uploadCandidates(list, "me", {});
    ASSERT_EQ(picked.size(), 2u);
    EXPECT_EQ(picked[0].id, "a");
    EXPECT_EQ(picked[1].id, "c");
    EXPECT_EQ(uploadCandidates(list, "me", {"a"}).size(), 1u);
    EXPECT_TRUE(uploadCandidates(list, std::nullopt, {}).empty());
    EXPECT_TRUE(uploadCandidates({}, "me", {}).empty());
}

TEST_F(QueueTest, UploadsInOrderAndRecordsFailures) {
    store.list = {entry("one", Status::ready), entry("two", Status::failed), entry("other", Status::ready, "acct-2")};
    store.list[1].attempts = 2;
    uploader.script = {ok("srv-1"),
                       fail(APIError::http(500, std::nullopt, std::nullopt))};
    make();
    queue->start();
    main.runPending();
    EXPECT_EQ(uploader.calls, (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(store.at("one").status, Status::uploaded);
    EXPECT_EQ(store.at("two").status, Status::failed);
    EXPECT_EQ(store.at("two").attempts, 3);
    EXPECT_EQ(store.at("two").lastError, "Server error (500).");
    EXPECT_EQ(store.at("two").lastErrorIsNetwork, false);
    EXPECT_EQ(store.at("other").status, Status::ready);
    EXPECT_FALSE(queue->running());
}

TEST_F(QueueTest, FailedEntriesComeBackAfterCappedJitteredBackoff) {
    store.list = {entry("one", Status::ready)};
    auto offline = fail(APIError::transport(7, "refused", true));
    uploader.script = {offline, offline, offline, offline, offline};
    make();
    queue->start();
    main.runPending();
    ASSERT_EQ(store.at("one").status, Status::failed);
    EXPECT_EQ(store.at("one").lastErrorIsNetwork, true);
    EXPECT_EQ(store.at("one").lastError, "No connection.");
    // First failure: 10 s at full length, half of it with the lowest jitter.
    EXPECT_DOUBLE_EQ(*queue->retryAt("one") - clock.uptime(), 5.0);
    main.advance(4.9);
    EXPECT_EQ(uploader.calls.size(), 1u);
    random = 1.0;  // then 20 s, 40 s, capped at 60 s
    main.advance(0.2);
    EXPECT_EQ(uploader.calls.size(), 2u);
    main.advance(20.0);
    EXPECT_EQ(uploader.calls.size(), 3u);
    main.advance(40.0);
    EXPECT_EQ(uploader.calls.size(), 4u);
    main.advance(59.0);
    EXPECT_EQ(uploader.calls.size(), 4u);
    main.advance(1.0);
    EXPECT_EQ(uploader.calls.size(), 5u);
    EXPECT_EQ(store.at("one").attempts, 5);
    // A wake respects the backoff; retryNow does not.
    queue->wake();
    main.runPending();
    EXPECT_EQ(uploader.calls.size(), 5u);
    queue->retryNow();
    main.runPending();
    EXPECT_EQ(uploader.calls.size(), 6u);
    EXPECT_EQ(store.at("one").status, Status::uploaded);
}

TEST_F(QueueTest, APassStoppedByAFullDiskComesBackOnceThereIsSpace) {
    store.list = {entry("one", Status::ready)};
    store.failure = "No space left on device";
    make();
    queue->start();
    main.runPending();
    EXPECT_TRUE(uploader.calls.empty());
    EXPECT_EQ(store.at("one").status, Status::ready);
    store.failure.reset();
    main.advance(settings.retryBaseSeconds);
    EXPECT_EQ(uploader.calls, (std::vector<std::string>{"one"}));
    EXPECT_EQ(store.at("one").status, Status::uploaded);
}

TEST_F(QueueTest, NetworkFailureEndsThePassWithoutTouchingTheRest) {
    store.list = {entry("one", Status::ready), entry("two", Status::ready)};
    uploader.script = {fail(APIError::transport(6, "could not resolve", true))};
    make();
    queue->start();
    main.runPending();
    EXPECT_EQ(uploader.calls, (std::vector<std::string>{"one"}));
    EXPECT_EQ(store.at("two").status, Status::ready);
    EXPECT_EQ(store.at("two").attempts, 0);
}

TEST_F(QueueTest, LostSessionStopsThePassAndSignsOut) {
    store.list = {entry("one", Status::ready), entry("two", Status::ready)};
    uploader.script = {fail(APIError::unauthenticated())};
    make();
    PassSummary summary;
    queue->runOnce([&](PassSummary s) { summary = s; });
    main.runPending();
    EXPECT_EQ(signOuts, 1);
    EXPECT_TRUE(summary.unauthenticated);
    EXPECT_EQ(summary.failed, 1);
    EXPECT_EQ(uploader.calls, (std::vector<std::string>{"one"}));
    EXPECT_EQ(store.at("one").status, Status::failed);
    EXPECT_EQ(store.at("one").lastError, "Your session expired. Sign in again.");
    EXPECT_EQ(store.at("two").status, Status::ready);
    // Signed out: nothing more is tried, not even after the backoff.
    queue->setAccount(std::nullopt);
    main.advance(3600);
    EXPECT_EQ(uploader.calls.size(), 1u);
    // Signing in again tries at once.
    queue->setAccount("acct-1");
    main.runPending();
    EXPECT_EQ(uploader.calls.size(), 3u);
}

TEST_F(QueueTest, InterruptedUploadIsQueuedAgainAndWakeDuringAPassIsNotLost) {
    store.list = {entry("crashed", Status::uploading)};
    uploader.hold = true;
    make();
    queue->start();
    main.runPending();
    EXPECT_EQ(store.at("crashed").status, Status::uploading);
    ASSERT_EQ(uploader.held.size(), 1u);
    EXPECT_EQ(queue->activity().get().currentID, "crashed");
    EXPECT_DOUBLE_EQ(queue->activity().get().progress, 0.5);
    // A recording stops while the upload runs: its entry goes in the same session.
    store.list.push_back(entry("new", Status::ready));
    queue->wake();
    uploader.hold = false;
    uploader.held[0](ok("srv-crashed"));
    main.runPending();
    EXPECT_EQ(uploader.calls, (std::vector<std::string>{"crashed", "new"}));
    EXPECT_EQ(store.at("new").status, Status::uploaded);
    EXPECT_FALSE(queue->activity().get().currentID);
}

TEST_F(QueueTest, LocalCopyIsDeletedOnlyAfterTheRetentionPeriod) {
    store.list = {entry("done", Status::ready), entry("waiting", Status::failed)};
    uploader.script = {ok("srv-done"),
                       fail(APIError::http(500, std::nullopt, std::nullopt))};
    make();
    queue->start();
    main.runPending();
    fs::path doneFile = store.at("done").fileURL, waitingFile = store.at("waiting").fileURL;
    uploader.script = {fail(APIError::http(500, std::nullopt, std::nullopt))};
    queue->setAccount(std::nullopt);  // no more passes: only the sweep acts
    main.advance(7 * 86400 - 10);
    queue->sweepRetention();
    EXPECT_TRUE(fs::exists(doneFile));
    main.advance(20);
    queue->sweepRetention();
    EXPECT_FALSE(fs::exists(doneFile));
    EXPECT_THROW(store.at("done"), std::out_of_range);
    EXPECT_TRUE(fs::exists(waitingFile));  // never confirmed: never deleted
}

TEST_F(QueueTest, RetentionSurvivesARestart) {
    store.list = {entry("done", Status::ready)};
    make();
    queue->start();
    main.runPending();
    ASSERT_EQ(store.at("done").status, Status::uploaded);
    queue.reset();
    main.advance(8 * 86400);
    make();
    queue->start();
    main.runPending();
    EXPECT_TRUE(store.list.empty());
}

}  // namespace
}  // namespace vell::service
