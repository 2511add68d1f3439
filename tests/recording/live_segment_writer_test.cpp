// Live segments: frame-exact rotation, hand-over only of sealed MPEG-4 files, clean-up.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <mutex>

#include "base/log.h"
#include "base/manual_executor.h"
#include "platform/codec/aac_writer.h"
#include "recording/live_segment_writer.h"
#include "tests/audio/aac_test_decoder.h"
#include "tests/recording/recorder_fakes.h"
#include "tests/support/temp_home.h"

namespace vell::recording {
namespace {

using test::constantBlock;

void writeBytes(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string box(const std::string& type, std::size_t payload) {
    const std::uint32_t size = static_cast<std::uint32_t>(8 + payload);
    std::string out{char(size >> 24), char(size >> 16), char(size >> 8), char(size)};
    return out + type + std::string(payload, '\0');
}

TEST(BoxWalk, FindsMoovOnlyAmongWellFormedTopLevelBoxes) {
    test::TempHome home;
    const auto f = home.tmp() / "f.m4a";
    writeBytes(f, box("ftyp", 12) + box("mdat", 100) + box("moov", 20));
    EXPECT_TRUE(hasTopLevelMoov(f));

    // A 64-bit size (size field 1) before the index.
    std::string large = std::string("\0\0\0\1mdat", 8) + std::string("\0\0\0\0\0\0\0\x20", 8) + std::string(16, 'x');
    writeBytes(f, box("ftyp", 12) + large + box("moov", 0));
    EXPECT_TRUE(hasTopLevelMoov(f));

    // Size 0: the media data runs to the end, so no index follows.
    writeBytes(f, box("ftyp", 12) + std::string("\0\0\0\0mdat", 8) + box("moov", 4));
    EXPECT_FALSE(hasTopLevelMoov(f));

    // A box that claims more than the file holds, or less than its own header.
    writeBytes(f, box("ftyp", 12) + box("mdat", 100).substr(0, 50) + box("moov", 0));
    EXPECT_FALSE(hasTopLevelMoov(f));
    writeBytes(f, box("ftyp", 12) + std::string("\0\0\0\4mdat", 8) + box("moov", 0));
    EXPECT_FALSE(hasTopLevelMoov(f));

    // "moov" nested inside another box does not count.
    writeBytes(f, box("ftyp", 12) + std::string("\0\0\0\x18udta", 8) + box("moov", 8));
    EXPECT_FALSE(hasTopLevelMoov(f));
    EXPECT_FALSE(hasTopLevelMoov(home.tmp() / "missing.m4a"));
}

class LiveSegmentTest : public ::testing::Test {
protected:
    std::unique_ptr<LiveSegmentWriter> make(media::AacWriterFactory factory = {}, double sealTimeout = 2.0) {
        LiveSegmentWriter::Options options;
        options.writerFactory = std::move(factory);
        options.mainExecutor = &main;
        options.sealTimeoutSeconds = sealTimeout;
        auto writer = std::make_unique<LiveSegmentWriter>(std::move(options));
        writer->onSegment = [this](const std::filesystem::path& p) {
            EXPECT_TRUE(main.isCurrentThread());
            delivered.push_back(p);
        };
        return writer;
    }
    // Appends `frames` of mixed audio in 0.1 s blocks.
    static void feed(LiveSegmentWriter& writer, std::int64_t frames, float value = 0.2f) {
        while (frames > 0) {
            const auto n = std::min<std::int64_t>(frames, 4410);
            writer.append(constantBlock(44100, 2, std::size_t(n), value));
            frames -= n;
        }
    }

    test::TempHome home;
    ManualClock clock;
    ManualExecutor main{clock};
    std::vector<std::filesystem::path> delivered;
};

TEST_F(LiveSegmentTest, RotatesAtExactly1323000FramesAndHandsOverASealedSegment) {
    auto writer = make();
    EXPECT_EQ(writer->directory(), home.runtime() / "vell" / "live-segments");
    writer->begin("TOKEN");
    feed(*writer, 1'322'999);
    EXPECT_EQ(writer->segmentIndex(), 0);
    EXPECT_FALSE(std::filesystem::exists(writer->directory() / "seg_TOKEN_000001.m4a"));
    writer->append(constantBlock(44100, 2, 1, 0.2f));
    EXPECT_EQ(writer->segmentIndex(), 1);
    EXPECT_TRUE(std::filesystem::exists(writer->directory() / "seg_TOKEN_000001.m4a"));
    EXPECT_EQ(writer->pendingHandoffs(), std::set<std::string>{"seg_TOKEN_000000.m4a"});

    ASSERT_TRUE(main.runUntil([&] { return !delivered.empty(); }));
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_EQ(delivered[0], writer->directory() / "seg_TOKEN_000000.m4a");
    auto decoded = test::decodeAudioFile(delivered[0]);
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_NE(decoded.container.find("mp4"), std::string::npos);
    EXPECT_EQ(decoded.sampleRate, 44100);
    EXPECT_EQ(decoded.channels, 2);
    EXPECT_NEAR(decoded.seconds(), 30.0, 0.03);

    // The last segment is sealed at finish; releasing deletes the file.
    feed(*writer, 44100);
    writer->finish();
    ASSERT_TRUE(main.runUntil([&] { return delivered.size() == 2; }));
    EXPECT_EQ(delivered[1].filename(), "seg_TOKEN_000001.m4a");
    EXPECT_NEAR(test::decodeAudioFile(delivered[1]).seconds(), 1.0, 0.03);
    writer->release(delivered[0]);
    EXPECT_FALSE(std::filesystem::exists(delivered[0]));
    EXPECT_EQ(writer->pendingHandoffs(), std::set<std::string>{"seg_TOKEN_000001.m4a"});

    // After finish, appends are ignored.
    feed(*writer, 1'400'000);
    EXPECT_EQ(writer->segmentIndex(), 1);
}

// A writer that writes media data but never its index, like an encoder that died.
class UnsealedWriter final : public fakes::CountingWriter {
public:
    UnsealedWriter(std::filesystem::path p, media::AacSettings s) : CountingWriter(std::move(p), s) {
        std::ofstream(path(), std::ios::binary) << box("ftyp", 12) << std::string("\0\0\0\0mdat", 8);
    }
};

TEST_F(LiveSegmentTest, NeverSealedSegmentsAreDroppedWithTheirLogLine) {
    std::mutex linesLock;
    std::vector<std::string> lines;
    log::setSink([&](log::Level, const std::string&, const std::string& message) {
        std::lock_guard g(linesLock);
        lines.push_back(message);
    });
    auto writer = make(
        [](const std::filesystem::path& p, const media::AacSettings& s) -> Expected<std::unique_ptr<media::AacWriter>, std::string> {
            return std::unique_ptr<media::AacWriter>(std::make_unique<UnsealedWriter>(p, s));
        },
        0.2);
    writer->begin("T");
    feed(*writer, LiveSegmentWriter::kSegmentFrames + 10);
    writer->finish();
    auto sawBoth = [&] {
        std::lock_guard g(linesLock);
        return lines.size() >= 2;
    };
    EXPECT_TRUE(main.runUntil(sawBoth, 5.0));
    main.runPending();
    log::setSink({});
    EXPECT_TRUE(delivered.empty());
    std::lock_guard g(linesLock);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "[live-segments] segment never sealed (no moov atom), dropped: seg_T_000000.m4a");
    EXPECT_EQ(lines[1], "[live-segments] final segment never sealed (no moov atom), dropped: seg_T_000001.m4a");
    EXPECT_TRUE(writer->pendingHandoffs().empty());
}

TEST_F(LiveSegmentTest, ASegmentThatCannotBeCreatedIsSkippedAndTheNextOneWorks) {
    int attempts = 0;
    auto writer = make([&](const std::filesystem::path& p, const media::AacSettings& s) {
        if (attempts++ == 0) return Expected<std::unique_ptr<media::AacWriter>, std::string>(unexpected(std::string("disk full")));
        return media::openAacWriter(p, s);
    });
    writer->begin("S");
    feed(*writer, LiveSegmentWriter::kSegmentFrames);
    EXPECT_EQ(writer->segmentIndex(), 1);
    EXPECT_TRUE(writer->pendingHandoffs().empty());
    feed(*writer, 22050);
    writer->finish();
    ASSERT_TRUE(main.runUntil([&] { return !delivered.empty(); }));
    EXPECT_EQ(delivered[0].filename(), "seg_S_000001.m4a");
    EXPECT_NEAR(test::decodeAudioFile(delivered[0]).seconds(), 0.5, 0.03);
}

// Where the folder should be, someone planted a link or a folder of their own: it is refused
// with a log line, nothing is written through it, and the recording's other work goes on.
TEST_F(LiveSegmentTest, APlantedLinkOrSomeoneElsesFolderIsNeverUsed) {
    const auto runtime = home.runtime() / "vell";
    std::filesystem::create_directory(runtime);
    const auto planted = home.tmp() / "planted";
    std::filesystem::create_directory(planted);
    struct Case {
        const char* name;
        std::function<bool()> plant;
    } cases[] = {
        {"a link to another folder", [&] {
             std::filesystem::create_directory_symlink(planted, runtime / "live-segments");
             return true;
         }},
        {"a folder of another user", [&] {
             if (::geteuid() != 0) return false;  // only root can give a folder away
             std::filesystem::create_directory(runtime / "live-segments");
             return ::chown((runtime / "live-segments").c_str(), 65534, 65534) == 0;
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::filesystem::remove_all(runtime / "live-segments");
        if (!c.plant()) continue;
        std::vector<std::string> errors;
        log::setSink([&](log::Level level, const std::string&, const std::string& text) {
            if (level == log::Level::Error) errors.push_back(text);
        });
        auto writer = make();
        EXPECT_EQ(writer->directory(), std::filesystem::path());
        writer->begin("P");
        feed(*writer, LiveSegmentWriter::kSegmentFrames + 4410);
        writer->finish();
        writer->cleanUpStaleFiles();
        log::setSink(nullptr);
        EXPECT_TRUE(delivered.empty());
        EXPECT_TRUE(std::filesystem::is_empty(planted));
        EXPECT_TRUE(std::filesystem::is_empty(runtime / "live-segments"));
        ASSERT_FALSE(errors.empty());
        EXPECT_NE(errors.front().find("live-segments"), std::string::npos) << errors.front();
    }
}

TEST_F(LiveSegmentTest, CleanUpRemovesLeftoversButKeepsSegmentsAwaitingRelease) {
    auto writer = make();
    const auto dir = writer->directory();
    writeBytes(dir / "seg_OLD_000003.m4a", "old");
    writeBytes(dir / "notes.txt", "keep");
    // A link named like a segment is not ours to delete, nor is what it points at.
    writeBytes(home.tmp() / "elsewhere.m4a", "someone's");
    std::filesystem::create_symlink(home.tmp() / "elsewhere.m4a", dir / "seg_LINK_000000.m4a");
    writer->begin("NEW");
    feed(*writer, LiveSegmentWriter::kSegmentFrames);
    ASSERT_TRUE(main.runUntil([&] { return !delivered.empty(); }));
    writer->cleanUpStaleFiles();
    EXPECT_FALSE(std::filesystem::exists(dir / "seg_OLD_000003.m4a"));
    EXPECT_TRUE(std::filesystem::exists(dir / "notes.txt"));
    EXPECT_TRUE(std::filesystem::is_symlink(dir / "seg_LINK_000000.m4a"));
    EXPECT_TRUE(std::filesystem::exists(home.tmp() / "elsewhere.m4a"));
    EXPECT_TRUE(std::filesystem::exists(dir / "seg_NEW_000000.m4a")) << "awaiting release";
    EXPECT_TRUE(std::filesystem::exists(dir / "seg_NEW_000001.m4a")) << "being written";
    writer->finish();
}

TEST_F(LiveSegmentTest, FinishRightAfterARotationLeavesNoEmptySegment) {
    auto writer = make();
    writer->begin("E");
    feed(*writer, LiveSegmentWriter::kSegmentFrames);
    writer->finish();
    ASSERT_TRUE(main.runUntil([&] { return !delivered.empty(); }));
    main.runPending();
    EXPECT_EQ(delivered.size(), 1u);
    EXPECT_FALSE(std::filesystem::exists(writer->directory() / "seg_E_000001.m4a"));
}

}  // namespace
}  // namespace vell::recording
