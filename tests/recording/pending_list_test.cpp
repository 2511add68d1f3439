#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>

#include <fstream>

#include "platform/files.h"
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

TEST(PendingListFile, CorruptListIsMovedAsideNotOverwritten) {
    test::TempHome home;
    fs::path dir = home.dataHome() / "rec";
    PendingListFile file(dir);
    const std::string corrupt = R"([{"id":"A","fileURL":"file:///a.aac","startedAt":1,"status":"paused","attempts":0}])";
    writeFile(file.manifest(), corrupt);
    EXPECT_FALSE(file.load());
    EXPECT_FALSE(fs::exists(file.manifest()));
    int aside = 0;
    for (auto& e : fs::directory_iterator(dir)) {
        if (e.path().filename().string().rfind("manifest.json.corrupt-", 0) == 0) {
            ++aside;
            EXPECT_EQ(readAll(e.path()), corrupt);
        }
    }
    EXPECT_EQ(aside, 1);
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
