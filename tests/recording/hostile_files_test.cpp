// What someone else can leave in the recordings folder: the recorder starts on it without
// hanging, crashing or growing, never reads, uploads or deletes a file outside the folder
// or behind a link, and never brings back a recording the user threw away.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <fstream>
#include <functional>

#include "base/files.h"
#include "base/log.h"
#include "base/manual_executor.h"
#include "base/runtime.h"
#include "recording/pending_recording_coding.h"
#include "recording/recorder_service.h"
#include "recording/recovery_scan.h"
#include "tests/insurance/adts_fixture.h"
#include "tests/recording/recorder_fakes.h"
#include "tests/support/temp_home.h"

namespace vell::recording {
namespace {

namespace fs = std::filesystem;
using Status = PendingRecording::Status;
using insurance::testing::adtsFrames;
using insurance::testing::writeFile;

class HostileFiles : public ::testing::Test {
public:
    HostileFiles() : exec(clock) {
        runtime::install(&exec, &clock);
        log::setSink([this](log::Level, const std::string&, const std::string& line) {
            std::lock_guard lock(logMutex);
            logText += line + "\n";
        });
        fs::create_directories(dir());
    }
    ~HostileFiles() override {
        recorder.reset();
        log::setSink({});
        runtime::install(nullptr, nullptr);
    }

    fs::path dir() const { return home.dataHome() / "Vell" / "Recordings"; }
    fs::path manifest() const { return dir() / "manifest.json"; }
    fs::path outside() const { return home.root() / "private.txt"; }
    fs::path recording(const std::string& id) const { return dir() / ("vell_rec_" + id + ".aac"); }

    PendingRecording entry(const std::string& id, Status status, fs::path file = {}) const {
        PendingRecording r;
        r.id = id;
        r.fileURL = file.empty() ? recording(id) : file;
        r.startedAt = fromSecondsSinceReferenceDate(100);
        r.status = status;
        if (status == Status::discarded) r.discardedAt = fromSecondsSinceReferenceDate(200);
        return r;
    }
    void writeList(const std::vector<PendingRecording>& list) { writeFile(manifest(), coding::encodeList(list)); }

    // The recorder as the host makes it at start; returns its pending list.
    std::vector<PendingRecording> start() {
        recorder = std::make_unique<RecorderService>(rig.parts(), dir());
        return recorder->pending();
    }
    std::optional<PendingRecording> find(const std::vector<PendingRecording>& list, const std::string& id) {
        for (const auto& r : list)
            if (r.id == id) return r;
        return std::nullopt;
    }
    bool setAside() const {
        for (const auto& e : fs::directory_iterator(dir()))
            if (e.path().filename().string().rfind("manifest.json.corrupt-", 0) == 0) return true;
        return false;
    }
    bool logged(const std::string& fragment) {
        std::lock_guard lock(logMutex);
        return logText.find(fragment) != std::string::npos;
    }

    test::TempHome home;
    ManualClock clock;
    ManualExecutor exec;
    fakes::Rig rig;
    std::unique_ptr<RecorderService> recorder;
    std::mutex logMutex;
    std::string logText;
};

struct Case {
    const char* name;
    std::function<void(HostileFiles&)> plant;
    std::function<void(HostileFiles&, const std::vector<PendingRecording>&)> check;
};

// The pending list itself is hostile: each is set aside with a log line and the recorder
// starts with what it can still trust, able to save again.
const Case kListCases[] = {
    {"fifo", [](HostileFiles& t) { ASSERT_EQ(::mkfifo(t.manifest().c_str(), 0600), 0); },
     [](HostileFiles& t, auto&) { EXPECT_TRUE(t.setAside()); }},
    {"link to /dev/zero", [](HostileFiles& t) { fs::create_symlink("/dev/zero", t.manifest()); },
     [](HostileFiles& t, auto&) { EXPECT_TRUE(t.setAside()); }},
    {"folder", [](HostileFiles& t) { fs::create_directories(t.manifest() / "inside"); },
     [](HostileFiles& t, auto&) { EXPECT_TRUE(t.setAside()); }},
    {"larger than any list", [](HostileFiles& t) {
         writeFile(t.manifest(), "[");
         fs::resize_file(t.manifest(), 1u << 30);  // sparse: a gigabyte without the disk
     },
     [](HostileFiles& t, auto&) { EXPECT_TRUE(t.setAside()); }},
    {"nested 300,000 deep", [](HostileFiles& t) {
         writeFile(t.manifest(), std::string(300'000, '[') + std::string(300'000, ']'));
     },
     [](HostileFiles& t, auto&) { EXPECT_TRUE(t.setAside()); }},
    {"entry nested deep beside a good one", [](HostileFiles& t) {
         writeFile(t.recording("GOOD"), adtsFrames(5));
         std::string good = coding::encodeList({t.entry("GOOD", Status::ready)});
         good.pop_back();
         writeFile(t.manifest(), good + ",{\"id\":\"X\",\"x\":" + std::string(100'000, '[') + std::string(100'000, ']') + "}]");
     },
     [](HostileFiles& t, auto& list) {
         EXPECT_TRUE(t.setAside());
         EXPECT_TRUE(t.find(list, "GOOD"));
     }},
};

class HostileList : public HostileFiles, public ::testing::WithParamInterface<Case> {};

TEST_P(HostileList, IsSetAsideAndTheRecorderStartsAndSavesAgain) {
    GetParam().plant(*this);
    rusage before{}, after{};
    ::getrusage(RUSAGE_SELF, &before);
    auto list = start();
    ::getrusage(RUSAGE_SELF, &after);
    // Reading a gigabyte file or a device whole would show here.
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 64 * 1024) << "kB";
    GetParam().check(*this, list);
    EXPECT_TRUE(logged("pending list")) << logText;
    PendingRecording r = entry("NEW", Status::ready);
    writeFile(r.fileURL, adtsFrames(5));
    recorder->add(r);
    EXPECT_FALSE(recorder->saveFailure()) << *recorder->saveFailure();
    std::error_code ec;
    auto text = files::read(manifest(), ec);
    ASSERT_TRUE(text) << ec.message();
    EXPECT_NE(text->find("NEW"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Cases, HostileList, ::testing::ValuesIn(kListCases), [](const auto& info) {
    std::string name;
    for (char c : std::string(info.param.name)) name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name;
});

// A recording discarded before the list was lost or replaced by `list`: it comes back
// discarded at its own time, never for upload.
Case discardedBehind(const char* name, std::string list) {
    return {name,
            [list](HostileFiles& t) {
                writeFile(t.recording("GONE"), adtsFrames(5));
                ASSERT_TRUE(markDiscarded(t.recording("GONE"), fromSecondsSinceReferenceDate(200)));
                writeFile(t.manifest(), list);
            },
            [](HostileFiles& t, auto& list) {
                auto r = t.find(list, "GONE");
                ASSERT_TRUE(r);
                EXPECT_EQ(r->status, Status::discarded);
                EXPECT_EQ(r->discardedAt, fromSecondsSinceReferenceDate(200));
            }};
}

// What lies in the folder, or what the list names, is hostile: it never enters the list
// (so nothing reads, uploads or deletes it) and the file it points to stays as it was.
const Case kFolderCases[] = {
    {"ready entry naming a file outside the folder", [](HostileFiles& t) {
         writeFile(t.outside(), "secret");
         t.writeList({t.entry("OUT", Status::ready, t.outside())});
     },
     [](HostileFiles& t, auto& list) {
         EXPECT_FALSE(t.find(list, "OUT"));
         EXPECT_TRUE(t.logged("outside the recordings folder"));
     }},
    {"discarded entry naming a file outside through ..", [](HostileFiles& t) {
         writeFile(t.outside(), "secret");
         t.writeList({t.entry("OUT", Status::discarded, t.dir() / ".." / ".." / ".." / "private.txt")});
     },
     [](HostileFiles& t, auto& list) { EXPECT_FALSE(t.find(list, "OUT")); }},
    {"recording that is a link to a private file", [](HostileFiles& t) {
         writeFile(t.outside(), "secret");
         fs::create_symlink(t.outside(), t.recording("LINK"));
         t.writeList({t.entry("LINK", Status::ready)});
     },
     [](HostileFiles& t, auto& list) {
         EXPECT_FALSE(t.find(list, "LINK"));
         EXPECT_TRUE(t.logged("not a regular file"));
         EXPECT_TRUE(fs::is_symlink(t.recording("LINK")));
     }},
    {"orphan that is a link to a private file", [](HostileFiles& t) {
         writeFile(t.outside(), "secret");
         fs::create_symlink(t.outside(), t.recording("LINK"));
     },
     [](HostileFiles& t, auto& list) {
         EXPECT_TRUE(list.empty());
         EXPECT_TRUE(t.logged("not a regular file"));
     }},
    {"orphan that is a FIFO", [](HostileFiles& t) { ASSERT_EQ(::mkfifo(t.recording("FIFO").c_str(), 0600), 0); },
     [](HostileFiles&, auto& list) { EXPECT_TRUE(list.empty()); }},
    {"orphan whose name is not UTF-8", [](HostileFiles& t) { writeFile(t.recording("\xff\xfe"), adtsFrames(5)); },
     [](HostileFiles& t, auto& list) {
         EXPECT_TRUE(list.empty());
         EXPECT_TRUE(t.logged("not UTF-8"));
     }},
    {"entry whose file name is not UTF-8", [](HostileFiles& t) {
         writeFile(t.recording("\xff"), adtsFrames(5));
         t.writeList({t.entry("BAD", Status::ready, t.recording("\xff"))});
     },
     [](HostileFiles&, auto& list) { EXPECT_TRUE(list.empty()); }},
    {"orphan holding one frame only", [](HostileFiles& t) { writeFile(t.recording("ONE"), adtsFrames(1)); },
     [](HostileFiles& t, auto& list) {
         EXPECT_TRUE(list.empty());
         EXPECT_FALSE(fs::exists(t.recording("ONE")));
         EXPECT_TRUE(t.logged("no decodable audio"));
     }},
    discardedBehind("discarded recording, the list lost", ""),
    discardedBehind("discarded recording, the list one entry of the wrong type", "[42]"),
};

class HostileFolder : public HostileFiles, public ::testing::WithParamInterface<Case> {};

TEST_P(HostileFolder, NeverEntersTheListAndTheFileStaysUntouched) {
    GetParam().plant(*this);
    auto list = start();
    GetParam().check(*this, list);
    if (fs::exists(outside())) {
        std::error_code ec;
        EXPECT_EQ(files::read(outside(), ec), "secret");
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, HostileFolder, ::testing::ValuesIn(kFolderCases), [](const auto& info) {
    std::string name;
    for (char c : std::string(info.param.name)) name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name;
});

// Discarding leaves a mark beside the file, undoing removes it: the scan can tell.
TEST_F(HostileFiles, DiscardAndUndoKeepTheMarkBesideTheFile) {
    writeFile(recording("R"), adtsFrames(5));
    writeList({entry("R", Status::ready)});
    start();
    recorder->update("R", [&](PendingRecording& r) {
        r.status = Status::discarded;
        r.discardedAt = clock.now();
    });
    EXPECT_TRUE(fs::exists(discardMarkOf(recording("R"))));
    recorder->update("R", [](PendingRecording& r) {
        r.status = Status::ready;
        r.discardedAt.reset();
    });
    EXPECT_FALSE(fs::exists(discardMarkOf(recording("R"))));
}

}  // namespace
}  // namespace vell::recording
