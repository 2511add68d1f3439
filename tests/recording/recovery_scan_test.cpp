#include <gtest/gtest.h>

#include <fstream>

#include "recording/recovery_scan.h"
#include "tests/support/temp_home.h"

namespace vell::recording {
namespace {

namespace fs = std::filesystem;

void writeFile(const fs::path& path, std::string_view bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

TEST(RecoveryScan, AcceptsOnlyNonEmptyUnreferencedRecordingFiles) {
    test::TempHome home;
    fs::path dir = home.dataHome() / "rec";
    writeFile(dir / "vell_rec_x.M4A", "audio");          // recovered as "x"
    writeFile(dir / "vell_rec_ABC.aac", "audio");        // recovered as "ABC"
    writeFile(dir / "vell_rec_EMPTY.aac", "");           // zero bytes
    writeFile(dir / "vell_rec_.aac", "audio");           // no id
    writeFile(dir / "vell_rec_KNOWN.aac", "audio");      // referenced
    writeFile(dir / "vell_rec_NOTE.txt", "audio");       // other extension
    writeFile(dir / "other_ABC.aac", "audio");           // other prefix
    fs::create_directories(dir / "vell_rec_DIR.aac");    // a folder of that name

    PendingRecording known;
    known.id = "KNOWN";
    known.fileURL = dir / "sub" / ".." / "vell_rec_KNOWN.aac";  // same file, unnormalised
    WallTime now = fromSecondsSinceReferenceDate(42);
    auto found = findOrphanRecordings(dir, {known}, now, "note");

    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].id, "ABC");
    EXPECT_EQ(found[1].id, "x");
    EXPECT_EQ(found[1].fileURL, dir / "vell_rec_x.M4A");
    for (auto& r : found) {
        EXPECT_EQ(r.status, PendingRecording::Status::ready);
        EXPECT_EQ(r.startedAt, now);
        EXPECT_EQ(r.finishedAt, now);
        EXPECT_EQ(r.lastError, "note");
        EXPECT_EQ(r.attempts, 0);
        EXPECT_FALSE(r.accountID);
        EXPECT_FALSE(r.lastErrorIsNetwork);
    }
    EXPECT_TRUE(findOrphanRecordings(home.dataHome() / "missing", {}, now, "note").empty());
}

}  // namespace
}  // namespace vell::recording
