// The upload queue driving real uploads: a worker thread per upload, completion on the
// main executor.
#include "base/manual_executor.h"
#include "base/runtime.h"
#include "service/upload_queue.h"
#include "tests/service/http_fixture.h"
#include "tests/support/memory_pending_store.h"

namespace vell::service::testing {
namespace {

using recording::PendingRecording;
using Status = PendingRecording::Status;

using ListStore = test::MemoryPendingStore;

struct QueueHTTPTest : ServiceTest {
    ManualClock clock;
    ManualExecutor main{clock};
    ListStore store;
    std::string accountID;
    void SetUp() override {
        ServiceTest::SetUp();
        runtime::install(&main, &clock);
        if (IsSkipped()) return;
        signIn();
        accountID = account->fetchMeNow()->id;
    }
    void TearDown() override {
        client.reset();  // joins the workers before the executor goes
        runtime::install(nullptr, nullptr);
    }
    void addEntry(const std::string& id, long long size) {
        PendingRecording r;
        r.id = id;
        r.fileURL = makeFile("vell_rec_" + id + ".aac", size);
        r.startedAt = clock.now();
        r.finishedAt = clock.now() + std::chrono::seconds(30);
        r.status = Status::ready;
        r.accountID = accountID;
        store.list.push_back(r);
    }
};

TEST_F(QueueHTTPTest, UploadsEveryEntryThenALostSessionSignsOut) {
    addEntry("a", 9'000'000);
    addEntry("b", 1'000);
    ApiRecordingUploader uploader(*client);
    UploadQueue queue(store, uploader, main, clock, [] { return 0.5; });
    int signOuts = 0;
    queue.onUnauthenticated = [&] { signOuts++; };
    queue.setAccount(accountID);
    std::optional<PassSummary> summary;
    std::vector<double> seen;
    auto watching = queue.activity().subscribe([&](const UploadActivity& a) {
        if (a.currentID == "a") seen.push_back(a.progress);
    });
    queue.runOnce([&](PassSummary s) { summary = s; });
    ASSERT_TRUE(main.runUntil([&] { return summary.has_value(); }, 60));
    EXPECT_EQ(summary->uploaded, 2);
    EXPECT_EQ(store.list[0].status, Status::uploaded);
    EXPECT_EQ(store.list[1].status, Status::uploaded);
    EXPECT_EQ(server->recordings().size(), 2u);
    EXPECT_EQ(seen.back(), 1.0);

    addEntry("c", 1'000);
    server->addFault({{"method", "POST"}, {"path", "upload/start"}, {"action", "status"}, {"status", 302},
                      {"headers", {{"Location", "/login"}}}});
    summary.reset();
    queue.runOnce([&](PassSummary s) { summary = s; });
    ASSERT_TRUE(main.runUntil([&] { return summary.has_value(); }, 60));
    EXPECT_TRUE(summary->unauthenticated);
    EXPECT_EQ(signOuts, 1);
    EXPECT_EQ(store.list[2].status, Status::failed);
    EXPECT_EQ(store.list[2].attempts, 1);
    EXPECT_EQ(store.list[2].lastError, "Your session expired. Sign in again.");
    EXPECT_EQ(store.list[2].lastErrorIsNetwork, false);
}

}  // namespace
}  // namespace vell::service::testing
