#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>

#include <fstream>

#include "base/files.h"
#include "recording/pending_list.h"
#include "recording/pending_recording_coding.h"
#include "tests/support/temp_home.h"

namespace vell::recording {
namespace {

namespace fs = std::filesystem;
using Status = PendingRecording::Status;

void writeFile(const fs::path& path, std::string_view bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

PendingRecording entry(const fs::path& dir, std::string id, Status status, std::optional<std::string> account = {}) {
    PendingRecording r;
    r.id = std::move(id);
    r.fileURL = dir / ("vell_rec_" + r.id + ".aac");
    r.startedAt = fromSecondsSinceReferenceDate(100);
    r.status = status;
    r.accountID = std::move(account);
    return r;
}

std::string readAll(const fs::path& p) {
    std::error_code ec;
    return files::read(p, ec).value_or("");
}

TEST(PendingListFile, SavesCompactJsonAndLoadsDroppingEntriesWhoseAudioIsGone) {
    test::TempHome home;
    fs::path dir = home.dataHome() / "Vell" / "Recordings";
    PendingListFile file(dir);
    EXPECT_FALSE(file.load());  // first start: no list yet

    auto kept = entry(dir, "KEPT", Status::ready);
    auto gone = entry(dir, "GONE", Status::failed);
    writeFile(kept.fileURL, "x");
    std::error_code ec;
    ASSERT_TRUE(file.save({gone, kept}, ec)) << ec.message();
    std::string text = readAll(file.manifest());
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(text.find(": "), std::string::npos);

    auto loaded = file.load();
    ASSERT_TRUE(loaded);
    ASSERT_EQ(loaded->size(), 1u);
    EXPECT_EQ(loaded->front(), kept);
    // The next save writes only what survived.
    ASSERT_TRUE(file.save(*loaded, ec));
    EXPECT_EQ(readAll(file.manifest()).find("GONE"), std::string::npos);
}

TEST(PendingListFile, FailedSaveKeepsThePreviousFile) {
    test::TempHome home;
    fs::path dir = home.dataHome() / "rec";
    PendingListFile file(dir);
    auto a = entry(dir, "A", Status::ready);
    std::error_code ec;
    ASSERT_TRUE(file.save({a}, ec));
    std::string before = readAll(file.manifest());

    // A file-size limit makes the write fail part-way (even for root), like a full disk.
    std::vector<PendingRecording> big(200, a);
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    rlimit small = saved;
    small.rlim_cur = 4096;
    ::setrlimit(RLIMIT_FSIZE, &small);
    bool saved_ok = file.save(big, ec);
    ::setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_FALSE(saved_ok);
    EXPECT_TRUE(ec);
    EXPECT_EQ(readAll(file.manifest()), before);
    for (auto& e : fs::directory_iterator(dir)) EXPECT_EQ(e.path().filename(), "manifest.json");  // no temp file left
}

std::vector<std::string> keptAside(const fs::path& dir) {
    std::vector<std::string> kept;
    for (auto& e : fs::directory_iterator(dir)) {
        if (e.path().filename().string().rfind("manifest.json.corrupt-", 0) == 0) kept.push_back(readAll(e.path()));
    }
    std::sort(kept.begin(), kept.end());
    return kept;
}

TEST(PendingListFile, CorruptListsAreMovedAsideAndNeverReplaceAnEarlierCopy) {
    test::TempHome home;
    fs::path dir = home.dataHome() / "rec";
    PendingListFile file(dir);
    // Two corrupt lists within the same second: both copies are kept.
    writeFile(file.manifest(), "[{\"id\":");
    EXPECT_FALSE(file.load());
    EXPECT_FALSE(fs::exists(file.manifest()));
    writeFile(file.manifest(), "not json at all");
    EXPECT_FALSE(file.load());
    EXPECT_EQ(keptAside(dir), (std::vector<std::string>{"[{\"id\":", "not json at all"}));
}

TEST(PendingListFile, OneUnknownStatusCostsOnlyItsOwnEntry) {
    test::TempHome home;
    fs::path dir = home.dataHome() / "rec";
    PendingListFile file(dir);
    auto uploaded = entry(dir, "UP", Status::uploaded, "acct-1");
    uploaded.attempts = 2;
    uploaded.finishedAt = fromSecondsSinceReferenceDate(200);
    auto discarded = entry(dir, "DI", Status::discarded, "acct-2");
    discarded.discardedAt = fromSecondsSinceReferenceDate(300);
    for (const auto& r : {uploaded, discarded}) writeFile(r.fileURL, "x");
    writeFile(dir / "vell_rec_ODD.aac", "x");
    std::string corrupt = coding::encodeList({uploaded, discarded});
    corrupt.insert(corrupt.size() - 1, ",{\"id\":\"ODD\",\"fileURL\":\"file://" + dir.string() +
                                           "/vell_rec_ODD.aac\",\"startedAt\":1,\"status\":\"paused\",\"attempts\":0}");
    writeFile(file.manifest(), corrupt);

    auto loaded = file.load();
    ASSERT_TRUE(loaded);
    EXPECT_EQ(*loaded, (std::vector<PendingRecording>{uploaded, discarded}));  // state and owner kept
    EXPECT_EQ(keptAside(dir), std::vector<std::string>{corrupt});
}

TEST(PendingRules, AdoptionGivesOnlyUnownedEntriesToTheAccount) {
    fs::path dir = "/r";
    std::vector<PendingRecording> list = {
        entry(dir, "1", Status::failed, "me"), entry(dir, "2", Status::ready, "other"), entry(dir, "3", Status::ready)};
    EXPECT_EQ(adoptUnowned(list, "me"), 1);
    EXPECT_EQ(list[2].accountID, "me");
    EXPECT_EQ(list[1].accountID, "other");
    EXPECT_EQ(adoptUnowned(list, "me"), 0);
}

TEST(PendingRules, InterruptedRecordingAndUploadBecomeReadyWithoutLosingAnything) {
    fs::path dir = "/r";
    auto recording = entry(dir, "R", Status::recording, "me");
    auto uploading = entry(dir, "U", Status::uploading, "me");
    uploading.attempts = 2;
    uploading.finishedAt = fromSecondsSinceReferenceDate(150);
    auto failed = entry(dir, "F", Status::failed, "me");
    failed.lastError = "Server error";
    std::vector<PendingRecording> list{recording, uploading, failed};
    WallTime now = fromSecondsSinceReferenceDate(500);
    EXPECT_EQ(settleInterrupted(list, now, "Recovered after an interrupted recording."), 2);
    EXPECT_EQ(list[0].status, Status::ready);
    EXPECT_EQ(list[0].finishedAt, now);
    EXPECT_EQ(list[0].lastError, "Recovered after an interrupted recording.");
    EXPECT_EQ(list[1].status, Status::ready);
    EXPECT_EQ(list[1].attempts, 2);
    EXPECT_EQ(list[1].finishedAt, fromSecondsSinceReferenceDate(150));
    EXPECT_EQ(list[2], failed);
}

}  // namespace
}  // namespace vell::recording
