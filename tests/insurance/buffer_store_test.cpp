// The buffer folder on real files: names are the only record, so every rule is checked by
// what the folder holds afterwards.
#include <gtest/gtest.h>

#include <fstream>

#include "insurance/insurance_buffer_store.h"
#include "tests/support/temp_home.h"

namespace vell::insurance {
namespace {

namespace fs = std::filesystem;

WallTime ms(std::int64_t v) { return WallTime{std::chrono::milliseconds{v}}; }

void put(const fs::path& file, std::size_t bytes) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << std::string(bytes, 'x');
}

std::vector<std::string> names(const fs::path& dir) {
    std::vector<std::string> out;
    std::error_code ec;
    for (auto& e : fs::directory_iterator(dir, ec)) out.push_back(e.path().filename().string());
    std::sort(out.begin(), out.end());
    return out;
}

class BufferStore : public ::testing::Test {
protected:
    test::TempHome home;
    fs::path dir = home.dataHome() / "Vell" / "Insurance";
    InsuranceBufferStore store{dir};
};

TEST_F(BufferStore, NamesParseOnlyInTheirExactForms) {
    using namespace chunk_names;
    EXPECT_EQ(openName(ms(1700000000123)), "open_1700000000123.aac");
    EXPECT_EQ(sealedName(ms(1000), ms(31000), 38), "ins_1000_31000_38.aac");
    EXPECT_EQ(parseOpen("open_42.aac"), 42);
    EXPECT_FALSE(parseOpen("open_.aac"));
    EXPECT_FALSE(parseOpen("open_4x2.aac"));
    EXPECT_FALSE(parseOpen("open_42.m4a"));
    auto doubled = parseSealed("ins_1000__2000_5.aac");  // empty pieces are dropped
    ASSERT_TRUE(doubled);
    EXPECT_EQ(doubled->startMs, 1000);
    EXPECT_EQ(doubled->endMs, 2000);
    EXPECT_EQ(doubled->activity, 5);
    EXPECT_FALSE(parseSealed("ins_1000_2000.aac"));          // two numbers
    EXPECT_FALSE(parseSealed("ins_1000_2000_5_6.aac"));      // four
    EXPECT_FALSE(parseSealed("ins_2000_1000_5.aac"));        // ends before it starts
    EXPECT_FALSE(parseSealed("ins_1000_2000_x.aac"));
    EXPECT_EQ(parseSealed("ins_1000_1000_150.aac")->activity, 150);  // read as it stands
}

TEST_F(BufferStore, SealRenamesWithClampedActivityAndAnEndNeverBeforeTheStart) {
    const auto open = store.openChunkURL(ms(5000));
    EXPECT_TRUE(fs::is_directory(dir)) << "opening creates the folder";
    EXPECT_FALSE(fs::exists(open)) << "but not the file";
    put(open, 10);
    auto sealed = store.seal(open, ms(4000), 150);
    ASSERT_TRUE(sealed);
    EXPECT_EQ(sealed->filename(), "ins_5000_5000_100.aac");
    EXPECT_FALSE(fs::exists(open));

    const auto second = store.openChunkURL(ms(6000));
    put(second, 10);
    EXPECT_EQ(store.seal(second, ms(7000), -3)->filename(), "ins_6000_7000_0.aac");

    put(dir / "notopen.aac", 1);
    EXPECT_FALSE(store.seal(dir / "notopen.aac", ms(9000), 5));
    EXPECT_TRUE(fs::exists(dir / "notopen.aac"));
    EXPECT_FALSE(store.seal(dir / "open_8000.aac", ms(9000), 5)) << "a missing file cannot be renamed";
}

TEST_F(BufferStore, ListingSkipsForeignFilesAndShowsALeftoverOpenChunk) {
    put(dir / "ins_3000_4000_20.aac", 300);
    put(dir / "ins_1000_2000_10.aac", 100);
    put(dir / "ins_5000_4000_10.aac", 5);  // end before start
    put(dir / "notes.txt", 7);
    put(dir / "open_6000.aac", 60);
    auto list = store.chunks();
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].start, ms(1000));
    EXPECT_EQ(list[0].activityPercent, 10);
    EXPECT_EQ(list[0].bytes, 100);
    EXPECT_EQ(list[1].end, ms(4000));
    EXPECT_TRUE(list[2].isOpen);
    EXPECT_FALSE(list[2].activityPercent);
    EXPECT_GT(list[2].end, ms(6000)) << "an open chunk ends at its last write";
    EXPECT_EQ(store.totalBytes(), 300 + 100 + 5 + 7 + 60);

    // Strict overlap, and empty files are not worth reading.
    put(dir / "ins_7000_8000_0.aac", 0);
    auto taken = store.chunks(ms(2000), ms(3001));
    ASSERT_EQ(taken.size(), 1u);
    EXPECT_EQ(taken[0].start, ms(3000));
    EXPECT_TRUE(store.chunks(ms(6999), ms(9000)).size() == 1u) << "only the open chunk; the empty one is skipped";
    EXPECT_TRUE(InsuranceBufferStore(home.root() / "missing").chunks().empty());
}

TEST_F(BufferStore, PruneKeepsTheWindowAndTheWrittenChunkAndDropsEverythingElse) {
    const WallTime now = ms(10'000'000);
    const double window = 600;  // cutoff = 9'400'000
    put(dir / "ins_9300000_9400000_1.aac", 1);   // ends exactly at the cutoff: goes
    put(dir / "ins_9300000_9400001_2.aac", 1);   // ends just after: stays
    put(dir / "ins_10061000_10062000_3.aac", 1); // starts more than a minute ahead: goes
    put(dir / "ins_10059000_10060000_4.aac", 1); // less than a minute ahead: stays
    put(dir / "ins_9500000_9400000_5.aac", 1);   // malformed: goes
    put(dir / "open_9000000.aac", 1);            // left over from a crash: goes
    put(dir / "open_9990000.aac", 1);            // being written: kept
    put(dir / "stray.wav", 1);
    store.prune(now, window, dir / "open_9990000.aac", 1'000'000);
    EXPECT_EQ(names(dir), (std::vector<std::string>{"ins_10059000_10060000_4.aac", "ins_9300000_9400001_2.aac",
                                                   "open_9990000.aac"}));
}

TEST_F(BufferStore, TheByteCapDropsOldestFirstButNeverTheKeptChunk) {
    const WallTime now = ms(10'000'000);
    put(dir / "open_9000000.aac", 500);  // the chunk being written, and the oldest
    put(dir / "ins_9100000_9200000_0.aac", 300);
    put(dir / "ins_9200000_9300000_0.aac", 300);
    put(dir / "ins_9300000_9400000_0.aac", 300);
    store.prune(now, 3600, dir / "open_9000000.aac", 1000);
    EXPECT_EQ(names(dir), (std::vector<std::string>{"ins_9300000_9400000_0.aac", "open_9000000.aac"}));
    EXPECT_EQ(store.totalBytes(), 800);
}

TEST_F(BufferStore, ConcatenateJoinsInTheGivenOrderAndReportsWhatItCannotRead) {
    put(dir / "ins_1000_2000_0.aac", 0);
    {
        std::ofstream(dir / "ins_2000_3000_0.aac") << "BBB";
        std::ofstream(dir / "ins_3000_4000_0.aac") << "CC";
    }
    auto list = store.chunks();
    std::reverse(list.begin(), list.end());
    const auto out = home.tmp() / "joined.aac";
    ASSERT_TRUE(store.concatenate(list, out));
    std::ifstream in(out);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "CCBBB");

    auto missing = list;
    missing.push_back(InsuranceChunk{dir / "ins_9_9_0.aac", ms(9), ms(9), 0, 1, false});
    EXPECT_FALSE(store.concatenate(missing, out));
    EXPECT_FALSE(store.concatenate(list, home.root() / "no" / "such" / "dir" / "x.aac"));

    // Vell's own temporary file is made new: a link planted in its place is not written through.
    const auto someones = home.tmp() / "someones.txt";
    std::ofstream(someones) << "theirs";
    fs::create_symlink(someones, home.tmp() / "preview.aac");
    EXPECT_FALSE(store.concatenate(list, home.tmp() / "preview.aac", InsuranceBufferStore::Creation::fresh));
    std::ifstream theirs(someones);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(theirs), {}), "theirs");
    EXPECT_TRUE(store.concatenate(list, home.tmp() / "fresh.aac", InsuranceBufferStore::Creation::fresh));

    store.removeAll();
    EXPECT_FALSE(fs::exists(dir));
    store.removeAll();  // nothing there: still fine
}

}  // namespace
}  // namespace vell::insurance
