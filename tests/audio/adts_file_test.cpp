// ADTS files as a player meets them: every header read back field by field, frames chained
// to the exact end of the file, cut files, and the disk failing underneath the writer.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>

extern "C" {
#include <libavutil/version.h>
}

#include "audio/adts_frames.h"
#include "platform/codec/aac_writer.h"
#include "platform/codec/avformat_library.h"
#include "tests/audio/aac_test_decoder.h"
#include "tests/support/temp_home.h"

namespace vell::media {
namespace {

namespace fs = std::filesystem;

std::vector<std::uint8_t> readBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeBytes(const fs::path& path, const std::vector<std::uint8_t>& bytes, std::size_t count) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(count));
}

// One ADTS header, read independently of the writer's own code.
struct AdtsFrame {
    std::size_t offset = 0;
    std::size_t length = 0;  // header included
    unsigned sync = 0, id = 0, layer = 0, protectionAbsent = 0, profile = 0, samplingIndex = 0, channels = 0,
             fullness = 0, rawBlocks = 0;
};

struct AdtsWalk {
    std::vector<AdtsFrame> frames;
    std::size_t end = 0;  // where the last whole frame ends
    std::string problem;
};

AdtsWalk walkAdts(const std::vector<std::uint8_t>& bytes) {
    AdtsWalk walk;
    std::size_t at = 0;
    while (at + 7 <= bytes.size()) {
        const std::uint8_t* h = bytes.data() + at;
        AdtsFrame f;
        f.offset = at;
        f.sync = (unsigned(h[0]) << 4) | (h[1] >> 4);
        f.id = (h[1] >> 3) & 1;
        f.layer = (h[1] >> 1) & 3;
        f.protectionAbsent = h[1] & 1;
        f.profile = h[2] >> 6;
        f.samplingIndex = (h[2] >> 2) & 0xF;
        f.channels = ((h[2] & 1) << 2) | (h[3] >> 6);
        f.length = ((std::size_t(h[3]) & 3) << 11) | (std::size_t(h[4]) << 3) | (h[5] >> 5);
        f.fullness = ((unsigned(h[5]) & 0x1F) << 6) | (h[6] >> 2);
        f.rawBlocks = h[6] & 3;
        if (f.sync != 0xFFF) {
            walk.problem = "no sync word at " + std::to_string(at);
            return walk;
        }
        if (f.length < 7) {
            walk.problem = "impossible frame length at " + std::to_string(at);
            return walk;
        }
        if (at + f.length > bytes.size()) break;  // a cut frame
        walk.frames.push_back(f);
        at += f.length;
        walk.end = at;
    }
    return walk;
}

// Writes `seconds` of a tone in 0.1 s blocks at the file's own format.
void writeTone(AacWriter& writer, double seconds, double hz) {
    const int rate = writer.settings().sampleRate, channels = writer.settings().channels;
    const std::size_t block = std::size_t(rate / 10), total = std::size_t(seconds * rate);
    for (std::size_t at = 0; at < total; at += block) {
        auto b = test::sineBlock(rate, channels, std::min(block, total - at), hz, 0.5f, at);
        std::vector<const float*> planes;
        for (auto& p : b->channels) planes.push_back(p.data());
        auto ok = writer.write(planes.data(), channels, b->frames(), rate);
        ASSERT_TRUE(ok) << ok.error();
    }
}

fs::path writeToneFile(const fs::path& path, const AacSettings& settings, double seconds) {
    auto writer = openAacWriter(path, settings);
    EXPECT_TRUE(writer) << writer.error();
    if (!writer) return path;
    writeTone(**writer, seconds, 440);
    auto finished = (*writer)->finish();
    EXPECT_TRUE(finished) << finished.error();
    return path;
}

// The descriptor this process holds on `path`, found the way a debugger would.
int descriptorOf(const fs::path& path) {
    const auto wanted = fs::canonical(path).string();
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code ec;
        const auto target = fs::read_symlink(entry.path(), ec);
        if (!ec && target.string() == wanted) return std::stoi(entry.path().filename().string());
    }
    return -1;
}

TEST(AdtsFile, EveryHeaderDescribesTheStreamAndFramesChainToTheEnd) {
    test::TempHome home;
    struct Row {
        AacSettings settings;
        unsigned samplingIndex;
        double seconds;
    };
    for (const Row& row : {Row{{AacContainer::adts, 44100, 2, 128'000}, 4, 3.0}, Row{{AacContainer::adts, 16000, 1, 32'000}, 8, 2.0},
                           Row{{AacContainer::adts, 48000, 2, std::nullopt}, 3, 1.0}}) {
        SCOPED_TRACE(std::to_string(row.settings.sampleRate) + " Hz x" + std::to_string(row.settings.channels));
        const auto path = writeToneFile(home.tmp() / ("walk" + std::to_string(row.settings.sampleRate) + ".aac"),
                                        row.settings, row.seconds);
        const auto bytes = readBytes(path);
        const auto walk = walkAdts(bytes);
        ASSERT_TRUE(walk.problem.empty()) << walk.problem;
        EXPECT_EQ(walk.end, bytes.size()) << "the last frame must end exactly at the end of the file";
        ASSERT_FALSE(walk.frames.empty());
        for (const auto& f : walk.frames) {
            SCOPED_TRACE("frame at byte " + std::to_string(f.offset));
            EXPECT_EQ(f.id, 0u) << "MPEG-4";
            EXPECT_EQ(f.layer, 0u);
            EXPECT_EQ(f.protectionAbsent, 1u) << "no CRC";
            EXPECT_EQ(f.profile, 1u) << "AAC LC";
            EXPECT_EQ(f.samplingIndex, row.samplingIndex);
            EXPECT_EQ(f.channels, unsigned(row.settings.channels));
            EXPECT_EQ(f.fullness, 0x7FFu);
            EXPECT_EQ(f.rawBlocks, 0u) << "one raw data block";
            EXPECT_GT(f.length, 7u);
        }
        // The input plus the encoder's priming, in whole 1024-sample frames.
        const double inputFrames = row.seconds * row.settings.sampleRate;
        EXPECT_GE(double(walk.frames.size()) * 1024, inputFrames + 1024);
        EXPECT_LE(double(walk.frames.size()) * 1024, inputFrames + 3 * 1024);

        auto decoded = test::decodeAudioFile(path);
        ASSERT_TRUE(decoded.ok) << decoded.error;
        EXPECT_EQ(decoded.container, "aac");
        EXPECT_EQ(decoded.sampleRate, row.settings.sampleRate);
        EXPECT_EQ(decoded.channels, row.settings.channels);
        EXPECT_EQ(decoded.frames(), walk.frames.size() * 1024) << "every frame decodes";
        const std::size_t rate = std::size_t(row.settings.sampleRate);
        EXPECT_NEAR(test::rmsOf(decoded.samples[0], rate / 2, rate / 2), 0.5 / std::sqrt(2.0), 0.03);
    }
}

TEST(AdtsFile, CutAnywhereAfterASyncDecodesEveryWholeFrameBeforeTheCut) {
    test::TempHome home;
    const auto full = writeToneFile(home.tmp() / "full.aac", {AacContainer::adts, 44100, 2, 128'000}, 0.6);
    const auto bytes = readBytes(full);
    const auto walk = walkAdts(bytes);
    ASSERT_TRUE(walk.problem.empty()) << walk.problem;
    ASSERT_GE(walk.frames.size(), 20u);
    auto reference = test::decodeAudioFile(full);
    ASSERT_TRUE(reference.ok) << reference.error;

    // Every byte of two frames in the middle, and the first bytes around every later boundary.
    std::vector<std::size_t> cuts;
    for (std::size_t at = walk.frames[10].offset + 1; at <= walk.frames[12].offset; ++at) cuts.push_back(at);
    for (std::size_t i = 13; i < walk.frames.size(); ++i) {
        for (std::size_t d : {1, 2, 6, 7, 8}) cuts.push_back(walk.frames[i].offset + d);
    }
    const auto cutPath = home.tmp() / "cut.aac";
    for (std::size_t cut : cuts) {
        std::size_t whole = 0;
        while (whole < walk.frames.size() && walk.frames[whole].offset + walk.frames[whole].length <= cut) ++whole;
        writeBytes(cutPath, bytes, cut);
        auto decoded = test::decodeAudioFile(cutPath);
        ASSERT_TRUE(decoded.ok) << "cut at " << cut << ": " << decoded.error;
        ASSERT_GE(decoded.frames(), whole * 1024) << "cut at " << cut;
        // The whole frames decode to exactly what the uncut file holds there.
        for (int c = 0; c < reference.channels; ++c) {
            ASSERT_TRUE(std::equal(decoded.samples[c].begin(), decoded.samples[c].begin() + std::ptrdiff_t(whole * 1024),
                                   reference.samples[c].begin()))
                << "cut at " << cut << ", channel " << c;
        }
    }
}

// Crash recovery meets a damaged stretch in the middle of a recording: only the damaged
// bytes go, every good frame after them is kept and decodes as before.
TEST(AdtsFile, RepairDropsOnlyTheDamagedBytesAndKeepsEveryGoodFrameAfterThem) {
    test::TempHome home;
    const auto full = writeToneFile(home.tmp() / "full.aac", {AacContainer::adts, 44100, 2, 128'000}, 2.0);
    const auto bytes = readBytes(full);
    const auto walk = walkAdts(bytes);
    ASSERT_TRUE(walk.problem.empty()) << walk.problem;
    ASSERT_GE(walk.frames.size(), 60u);
    const auto& hit = walk.frames[30];
    struct Row {
        const char* name;
        std::function<void(std::vector<std::uint8_t>&)> damage;
        std::size_t framesLost;
    };
    const Row rows[] = {
        {"sync word gone", [&](auto& b) { b[hit.offset] = 0x00; }, 1},
        {"length past the end", [&](auto& b) { b[hit.offset + 3] |= 0x03, b[hit.offset + 4] = 0xFF; }, 1},
        // Kept as a short frame: nothing tells it from a good frame before a damaged header.
        {"length too short", [&](auto& b) { b[hit.offset + 4] = 0x01, b[hit.offset + 5] &= 0x1F; }, 0},
        {"other sampling rate", [&](auto& b) { b[hit.offset + 2] ^= 0x04; }, 1},
        {"junk between frames",
         [&](auto& b) { b.insert(b.begin() + std::ptrdiff_t(hit.offset), 333, std::uint8_t(0xFF)); }, 0},
        {"half a frame at the end", [&](auto& b) { b.resize(b.size() - 5); }, 1},
        {"the first frame's length", [&](auto& b) { b[3] |= 0x03, b[4] = 0xFF; }, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        auto damaged = bytes;
        row.damage(damaged);
        const auto path = home.tmp() / "damaged.aac";
        writeBytes(path, damaged, damaged.size());
        std::error_code ec;
        const auto extent = trimAdtsFile(path, ec);
        ASSERT_FALSE(ec) << ec.message();
        const auto repaired = readBytes(path);
        const auto after = walkAdts(repaired);
        EXPECT_TRUE(after.problem.empty()) << after.problem;
        EXPECT_EQ(after.end, repaired.size());
        EXPECT_EQ(after.frames.size(), walk.frames.size() - row.framesLost);
        EXPECT_EQ(extent.frames, after.frames.size());
        auto decoded = test::decodeAudioFile(path);
        ASSERT_TRUE(decoded.ok) << decoded.error;
        // Every frame decodes; a decoder may conceal one frame damaged inside.
        EXPECT_GE(decoded.frames(), (after.frames.size() - 1) * 1024);
    }
}

// The disk fails under a recording: each failure names the file, and audio already encoded
// is kept for when the disk takes writes again.
TEST(AdtsFile, DiskFailuresNameTheFileAndLoseNothingOnceTheDiskRecovers) {
    test::TempHome home;
    const auto path = home.tmp() / "failing.aac";
    auto opened = openAacWriter(path, {AacContainer::adts, 44100, 2, 128'000});
    ASSERT_TRUE(opened) << opened.error();
    AacWriter& writer = **opened;
    writeTone(writer, 1.0, 440);
    ASSERT_TRUE(writer.syncToDisk());
    const int fd = descriptorOf(path);
    ASSERT_GE(fd, 0);
    const auto syncedBytes = fs::file_size(path);

    // A full disk: /dev/full refuses every write with ENOSPC.
    const int saved = ::dup(fd);
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    ASSERT_GE(::dup2(full, fd), 0);
    ::close(full);
    writeTone(writer, 1.0, 440);  // still buffered: a write of a few packets need not touch the disk
    auto synced = writer.syncToDisk();
    ASSERT_FALSE(synced);
    EXPECT_NE(synced.error().find(path.string()), std::string::npos) << synced.error();
    EXPECT_NE(synced.error().find(std::strerror(ENOSPC)), std::string::npos) << synced.error();

    // A descriptor that cannot write any more.
    const int readOnly = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(::dup2(readOnly, fd), 0);
    ::close(readOnly);
    synced = writer.syncToDisk();
    ASSERT_FALSE(synced);
    EXPECT_NE(synced.error().find(path.string()), std::string::npos) << synced.error();
    EXPECT_NE(synced.error().find(std::strerror(EBADF)), std::string::npos) << synced.error();

    // The disk recovers: the held second goes out whole, and the file is a clean stream.
    ASSERT_GE(::dup2(saved, fd), 0);
    ::close(saved);
    writeTone(writer, 1.0, 440);
    auto recovered = writer.finish();
    ASSERT_TRUE(recovered) << recovered.error();
    const auto bytes = readBytes(path);
    EXPECT_GT(bytes.size(), syncedBytes);
    const auto walk = walkAdts(bytes);
    ASSERT_TRUE(walk.problem.empty()) << walk.problem;
    EXPECT_EQ(walk.end, bytes.size());
    auto decoded = test::decodeAudioFile(path);
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_NEAR(decoded.seconds(), 3.0, 0.1) << "all three seconds, none dropped";
}

TEST(AdtsFile, DeletingTheFileWhileRecordingIsReportedAtTheNextSync) {
    test::TempHome home;
    const auto path = home.tmp() / "deleted.aac";
    auto writer = openAacWriter(path, {AacContainer::adts, 16000, 1, 32'000});
    ASSERT_TRUE(writer) << writer.error();
    writeTone(**writer, 0.5, 300);
    ASSERT_TRUE((*writer)->syncToDisk());
    fs::remove(path);
    writeTone(**writer, 0.5, 300);
    auto synced = (*writer)->syncToDisk();
    ASSERT_FALSE(synced);
    EXPECT_NE(synced.error().find(path.string()), std::string::npos) << synced.error();
    EXPECT_NE(synced.error().find("deleted"), std::string::npos) << synced.error();
    EXPECT_FALSE((*writer)->finish()) << "finishing a deleted file is not a success";
    EXPECT_FALSE(fs::exists(path)) << "nothing recreated behind the user's back";
}

TEST(AvformatLibrary, AMissingLibraryOrFunctionIsNamed) {
    auto missing = loadAvformatLibrary("libavformat.so.0-not-installed");
    ASSERT_FALSE(missing);
    EXPECT_NE(missing.error().find("libavformat.so.0-not-installed"), std::string::npos) << missing.error();

    // A real library of the same family that lacks the muxing functions.
    const std::string avutil = "libavutil.so." AV_STRINGIFY(LIBAVUTIL_VERSION_MAJOR);
    auto wrong = loadAvformatLibrary(avutil);
    ASSERT_FALSE(wrong);
    EXPECT_NE(wrong.error().find(avutil), std::string::npos) << wrong.error();
    EXPECT_NE(wrong.error().find("avformat_alloc_output_context2"), std::string::npos) << wrong.error();

    auto real = avformatLibrary();
    ASSERT_TRUE(real) << real.error();
    EXPECT_EQ(*real, *avformatLibrary()) << "loaded once";
}

}  // namespace
}  // namespace vell::media
