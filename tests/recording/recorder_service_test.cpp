#include <gtest/gtest.h>

#include <fstream>

#include "base/files.h"
#include "base/language.h"
#include "base/log.h"
#include "base/manual_executor.h"
#include "base/runtime.h"
#include "recording/pending_recording_coding.h"
#include "recording/recorder_service.h"
#include "tests/recording/recorder_fakes.h"
#include "tests/support/temp_home.h"

namespace vell::recording {
namespace {

namespace fs = std::filesystem;
using Status = PendingRecording::Status;

class RecorderTest : public ::testing::Test {
protected:
    RecorderTest() : exec(clock) {
        runtime::install(&exec, &clock);
        setInterfaceLanguage(Language::English);
        log::setSink([this](log::Level, const std::string& category, const std::string& line) {
            std::lock_guard lock(logMutex);
            logLines.push_back(category + ": " + line);
        });
    }
    ~RecorderTest() override {
        recorder.reset();
        log::setSink({});
        runtime::install(nullptr, nullptr);
    }

    RecorderService& make() {
        recorder = std::make_unique<RecorderService>(rig.parts(), dir());
        return *recorder;
    }
    fs::path dir() const { return home.dataHome() / "Vell" / "Recordings"; }

    // Starts and waits for the microphone queue to answer.
    bool startAndWait(RecordingStartOptions options = {}) {
        std::optional<bool> result;
        recorder->start(options, [&](bool ok) { result = ok; });
        EXPECT_TRUE(exec.runUntil([&] { return result.has_value(); }));
        return result.value_or(false);
    }
    bool logged(const std::string& fragment) {
        std::lock_guard lock(logMutex);
        for (auto& l : logLines)
            if (l.find(fragment) != std::string::npos) return true;
        return false;
    }
    std::vector<PendingRecording> onDisk() {
        std::error_code ec;
        auto text = files::read(dir() / "manifest.json", ec);
        return text ? coding::decodeList(*text).value_or(std::vector<PendingRecording>{}) : std::vector<PendingRecording>{};
    }

    test::TempHome home;
    ManualClock clock;
    ManualExecutor exec;
    fakes::Rig rig;
    std::unique_ptr<RecorderService> recorder;
    std::mutex logMutex;
    std::vector<std::string> logLines;
};

TEST_F(RecorderTest, StartRecordsIntoTheMixersRealFileAndStopMakesItReady) {
    rig.mixerUsesM4a = true;  // the mixer fell back to MPEG-4
    auto& r = make();
    WallTime startedAt = clock.now();
    ASSERT_TRUE(startAndWait({.automatic = true, .calendarMeetingTitle = "Standup"}));

    EXPECT_TRUE(r.state.isRecording.get());
    EXPECT_TRUE(r.isAutomaticRecording());
    EXPECT_EQ(r.state.calendarMeetingTitle.get(), "Standup");
    EXPECT_EQ(rig.mic->lastTarget, (audio::MicrophoneTarget{std::string("usb-mic"), 7u}));
    EXPECT_TRUE(rig.probe().systemEnabled);
    ASSERT_TRUE(r.currentID());
    const std::string id = *r.currentID();
    EXPECT_EQ(id.size(), 36u);  // an upper-case UUID
    for (char c : id) EXPECT_FALSE(std::islower(static_cast<unsigned char>(c)));

    auto list = onDisk();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].id, id);
    EXPECT_EQ(list[0].fileURL, dir() / ("vell_rec_" + id + ".m4a"));
    EXPECT_EQ(list[0].status, Status::recording);
    EXPECT_EQ(list[0].startedAt, startedAt);
    EXPECT_FALSE(list[0].finishedAt);
    EXPECT_EQ(list[0].accountID, "acct-1");
    EXPECT_EQ(list[0].liveSessionID, "live-9");

    // Microphone buffers reach the mixer.
    rig.mic->handler(audio::PcmBuffer::make(48'000, 1, 480));
    EXPECT_EQ(rig.probe().micBuffers, 1);

    exec.advance(3);
    EXPECT_DOUBLE_EQ(r.state.elapsed.get(), 3.0);
    r.stop();
    EXPECT_FALSE(r.state.isRecording.get());
    EXPECT_FALSE(rig.mic->running);
    EXPECT_FALSE(rig.system->running);
    EXPECT_EQ(rig.probe().finishes, 1);
    EXPECT_EQ(rig.ended, std::vector<std::string>{id});
    EXPECT_EQ(r.state.elapsed.get(), 0.0);
    EXPECT_FALSE(r.currentID());
    list = onDisk();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].status, Status::ready);
    EXPECT_EQ(list[0].finishedAt, clock.now());
    EXPECT_FALSE(list[0].discardedAt);
    EXPECT_EQ(r.pending(), list);
    EXPECT_EQ(r.state.pending.get(), list);

    // Stopping again does nothing; a discard of the next recording marks it discarded.
    r.stop();
    ASSERT_TRUE(startAndWait());
    r.stop(false, true);
    list = onDisk();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[1].status, Status::discarded);
    EXPECT_EQ(list[1].discardedAt, clock.now());
    EXPECT_EQ(rig.ended.size(), 1u);  // not user-initiated: the live advisor is not told
}

TEST_F(RecorderTest, SecondStartWhileStartingOrRecordingIsIgnored) {
    auto& r = make();
    std::vector<bool> results;
    r.start({}, [&](bool ok) { results.push_back(ok); });
    EXPECT_TRUE(r.isStarting());
    r.start({}, [&](bool ok) { results.push_back(ok); });
    ASSERT_TRUE(exec.runUntil([&] { return results.size() == 2; }));
    EXPECT_EQ(results, (std::vector<bool>{false, true}));
    EXPECT_FALSE(startAndWait());
    EXPECT_EQ(rig.mic->starts, 1);
    EXPECT_EQ(r.pending().size(), 1u);
}

TEST_F(RecorderTest, FailedStartsLeaveNoRecordAndSayWhy) {
    auto& r = make();
    struct Case {
        std::function<void()> arrange;
        std::string message;
    };
    std::vector<Case> cases = {
        {[&] { rig.mic->failNext = [] { throw audio::MicrophonePermissionError(); }; }, "Microphone permission is missing."},
        {[&] { rig.mic->failNext = [] { throw audio::MicCaptureError::deviceRejected(-10851); }; },
         "Microphone selection failed (audio error -10851)"},
        {[&] { rig.mic->failNext = [] { throw audio::CoreAudioError(-3, "pa_context_connect"); }; },
         "Audio error -3 (pa_context_connect)"},
        {[&] { rig.mixerFailsOpen = true; }, "Could not start the audio mixer."},
    };
    for (auto& c : cases) {
        c.arrange();
        EXPECT_FALSE(startAndWait());
        rig.mixerFailsOpen = false;
        EXPECT_EQ(r.state.lastError.get(), c.message);
        EXPECT_FALSE(r.state.isRecording.get());
        EXPECT_FALSE(r.isStarting());
        EXPECT_TRUE(r.pending().empty());
        EXPECT_FALSE(rig.mic->running);
        // The half-made file is gone, so the next launch does not "recover" it.
        EXPECT_FALSE(fs::exists(rig.probe().file)) << c.message;
    }
    EXPECT_TRUE(onDisk().empty());
    // The live sessions opened for the three starts that got past the mixer were ended.
    EXPECT_EQ(rig.ended.size(), 3u);
    // And the next start works, clearing the message.
    ASSERT_TRUE(startAndWait());
    EXPECT_FALSE(r.state.lastError.get());
}

TEST_F(RecorderTest, WithoutAudioPartsStartFailsClearly) {
    recorder = std::make_unique<RecorderService>(RecorderParts{}, dir());
    EXPECT_FALSE(startAndWait());
    EXPECT_EQ(recorder->state.lastError.get(), "This build of Vell cannot capture audio (no audio backend).");
    EXPECT_TRUE(recorder->pending().empty());
}

TEST_F(RecorderTest, SystemAudioThatCannotStartLeavesAMicrophoneOnlyRecording) {
    rig.system->fail = true;
    auto& r = make();
    ASSERT_TRUE(startAndWait());
    EXPECT_TRUE(r.state.isRecording.get());
    EXPECT_FALSE(rig.probe().systemEnabled);
    EXPECT_TRUE(logged("recording the microphone only: Audio error -1 (pa_stream_connect_record)"));
    r.stop();
    EXPECT_EQ(rig.system->stops, 0);
}

TEST_F(RecorderTest, FiveHourLimitStopsAtExactlyEighteenThousandSeconds) {
    rig.speech->speaking = [this] { return std::optional<WallTime>(clock.now()); };
    auto& r = make();
    ASSERT_TRUE(startAndWait());
    exec.advance(17'999.5);
    EXPECT_TRUE(r.state.isRecording.get());
    exec.advance(0.5);
    EXPECT_FALSE(r.state.isRecording.get());
    EXPECT_EQ(r.state.lastError.get(), "Recording stopped automatically after 5 hours.");
    EXPECT_EQ(onDisk().at(0).status, Status::ready);
}

TEST_F(RecorderTest, SilenceLimitStopsAtExactlySixHundredSecondsAfterTheLastSpeech) {
    auto& r = make();
    ASSERT_TRUE(startAndWait());
    WallTime start = clock.now();
    exec.advance(100);
    rig.speech->heard = clock.now();  // somebody spoke at 100 s
    exec.advance(599.5);
    EXPECT_TRUE(r.state.isRecording.get());
    exec.advance(0.5);
    EXPECT_FALSE(r.state.isRecording.get());
    EXPECT_EQ(clock.now() - start, std::chrono::seconds(700));
    EXPECT_EQ(r.state.lastError.get(), "Recording stopped after 10 minutes without speech.");
}

TEST_F(RecorderTest, UnusableSpeechDetectorFallsBackToMeaningfulSystemAudio) {
    rig.speech->isUsable = false;
    auto& r = make();
    ASSERT_TRUE(startAndWait());
    auto silent = audio::PcmBuffer::make(44'100, 2, 441);
    auto sound = audio::PcmBuffer::make(44'100, 2, 441);
    sound->channels[1][5] = 0.001f;

    exec.advance(300);
    rig.mixer().onSystemBuffer(silent);  // digital silence is not meaningful
    exec.runPending();
    EXPECT_FALSE(r.heardMeaningfulAudio());
    EXPECT_EQ(r.systemSilentSince(), clock.now());
    exec.advance(100);
    rig.mixer().onSystemBuffer(sound);  // at 400 s
    exec.runPending();
    EXPECT_TRUE(r.heardMeaningfulAudio());
    EXPECT_EQ(r.lastMeaningfulAudioAt(), clock.now());
    EXPECT_FALSE(r.systemSilentSince());

    exec.advance(599.5);
    EXPECT_TRUE(r.state.isRecording.get());
    exec.advance(0.5);
    EXPECT_FALSE(r.state.isRecording.get());
    EXPECT_EQ(r.state.lastError.get(), "Recording stopped after 10 minutes without speech.");
}

TEST_F(RecorderTest, MixedAudioFeedsTheSpeechDetectorAndActiveLiveSegments) {
    struct Sink final : audio::LiveSegmentSink {
        void begin(const std::string&) override {}
        void append(audio::PcmBufferPtr) override { ++appended; }
        void finish() override { ++finished; }
        int appended = 0, finished = 0;
    };
    auto sink = std::make_shared<Sink>();
    bool live = false;
    auto parts = rig.parts();
    parts.liveSegments = sink;
    parts.liveAdvisor.isActive = [&] { return live; };
    recorder = std::make_unique<RecorderService>(parts, dir());
    ASSERT_TRUE(startAndWait());
    auto block = audio::PcmBuffer::make(44'100, 1, 4410);
    rig.mixer().onMixedBuffer(block);
    live = true;
    rig.mixer().onMixedBuffer(block);
    EXPECT_EQ(rig.speech->analyzed, 2);
    EXPECT_EQ(sink->appended, 1);
    recorder->stop();
    EXPECT_EQ(sink->finished, 1);
}

TEST_F(RecorderTest, WriteErrorStopsAndKeepsTheSavedPart) {
    auto& r = make();
    ASSERT_TRUE(startAndWait());
    rig.mixer().onWriteError("No space left on device");
    exec.runPending();
    EXPECT_FALSE(r.state.isRecording.get());
    EXPECT_EQ(r.state.lastError.get(),
              "Recording stopped because Vell could no longer save audio. The saved part will be uploaded.");
    auto list = onDisk();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].status, Status::ready);
    EXPECT_TRUE(fs::exists(list[0].fileURL));
    ASSERT_TRUE(r.lastStop());
    EXPECT_TRUE(r.lastStop()->kept);
    EXPECT_NEAR(r.lastStop()->savedSeconds, 1024.0 / 44100, 1e-9);  // the one frame in the file

    // Nothing whole reached the file (the disk was full from the start): no entry promises
    // an upload, and no empty file is left.
    ASSERT_TRUE(startAndWait());
    const fs::path empty = rig.mixer().outputFile();
    { std::ofstream(empty, std::ios::binary | std::ios::trunc).write("\xFF\xF1\x50", 3); }  // half a header
    rig.mixer().onWriteError("No space left on device");
    exec.runPending();
    EXPECT_EQ(r.state.lastError.get(),
              "Recording stopped because Vell could not save any audio (is the disk full?). Nothing was saved.");
    EXPECT_FALSE(r.lastStop()->kept);
    EXPECT_FALSE(fs::exists(empty));
    EXPECT_EQ(onDisk().size(), 1u);

    // The file deleted behind its back: the entry goes, and the message promises nothing.
    setInterfaceLanguage(Language::Spanish);
    ASSERT_TRUE(startAndWait());
    fs::remove(rig.mixer().outputFile());
    rig.mixer().onWriteError("the file was deleted while it was being written");
    exec.runPending();
    EXPECT_EQ(r.state.lastError.get(), "La grabación se detuvo porque se borró su archivo. No queda nada para subir.");
    EXPECT_FALSE(r.lastStop()->kept);
    EXPECT_EQ(onDisk().size(), 1u);
    EXPECT_EQ(r.pending().size(), 1u);
}

TEST_F(RecorderTest, StartUndoesItselfWhenThePendingListCannotBeSaved) {
    auto& r = make();
    fs::create_directories(dir());
    // A directory where the list's temporary file would go makes every save fail.
    fs::create_directories(dir() / "manifest.json" / "x");
    EXPECT_FALSE(startAndWait());
    EXPECT_FALSE(r.state.isRecording.get());
    ASSERT_TRUE(r.state.lastError.get());
    EXPECT_EQ(r.state.lastError.get()->rfind("Vell could not save its list of recordings: ", 0), 0u) << *r.state.lastError.get();
    EXPECT_TRUE(r.pending().empty());
    EXPECT_FALSE(rig.mic->running);
    for (const auto& e : fs::directory_iterator(dir())) EXPECT_NE(e.path().extension(), ".aac") << e.path();
}

TEST_F(RecorderTest, RecoveryCutsAHalfWrittenLastFrameAndDropsRecordingsWithoutAudio) {
    fs::create_directories(dir());
    const std::string frame("\xFF\xF1\x50\x80\x01\x1F\xFC\x00", 8);
    std::ofstream(dir() / "vell_rec_CUT.aac", std::ios::binary) << frame << frame << frame.substr(0, 5);
    std::ofstream(dir() / "vell_rec_ORPHAN.aac", std::ios::binary) << frame << frame << frame.substr(0, 3);
    std::ofstream(dir() / "vell_rec_EMPTY.aac", std::ios::binary) << frame.substr(0, 6);
    auto entry = [&](const std::string& id) {
        PendingRecording e;
        e.id = id;
        e.fileURL = dir() / ("vell_rec_" + id + ".aac");
        e.startedAt = fromSecondsSinceReferenceDate(5);
        e.status = Status::recording;
        return e;
    };
    {
        std::error_code ec;
        ASSERT_TRUE(PendingListFile(dir()).save({entry("CUT"), entry("EMPTY")}, ec));
    }
    auto& r = make();
    auto list = r.pending();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].id, "CUT");
    EXPECT_EQ(list[0].status, Status::ready);
    EXPECT_EQ(list[1].id, "ORPHAN");
    EXPECT_EQ(fs::file_size(dir() / "vell_rec_CUT.aac"), 16u);
    EXPECT_EQ(fs::file_size(dir() / "vell_rec_ORPHAN.aac"), 16u);
    EXPECT_FALSE(fs::exists(dir() / "vell_rec_EMPTY.aac"));
    EXPECT_EQ(onDisk(), list);
}

TEST_F(RecorderTest, MicrophoneIsReopenedOnDeviceChangeAndAFailedReopenIsReportedAndRetried) {
    auto& r = make();
    ASSERT_TRUE(startAndWait());
    rig.mic->onDeviceChange();
    ASSERT_TRUE(exec.runUntil([&] { return rig.mic->starts == 2; }));
    EXPECT_TRUE(rig.mic->running);

    setInterfaceLanguage(Language::Spanish);
    rig.mic->failNext = [] { throw audio::CoreAudioError(-7, "pa_stream_connect_record"); };
    rig.mic->onDeviceChange();
    ASSERT_TRUE(exec.runUntil([&] { return r.state.lastError.get().has_value(); }));
    EXPECT_EQ(r.state.lastError.get(), "No se pudo reabrir el micrófono: Audio error -7 (pa_stream_connect_record)");
    EXPECT_TRUE(r.state.isRecording.get());  // a failed reopen does not stop by itself
    EXPECT_TRUE(logged("startMic(mixer:restart:)"));

    // It is tried again every two seconds (the server may be restarting) until it opens;
    // the message goes with it.
    rig.mic->failNext = [] { throw audio::CoreAudioError(-7, "pa_stream_connect_record"); };
    exec.advance(RecorderService::kMicRetrySeconds);
    ASSERT_TRUE(exec.runUntil([&] { return rig.mic->starts == 4; }));
    EXPECT_FALSE(rig.mic->running);
    exec.advance(RecorderService::kMicRetrySeconds);
    ASSERT_TRUE(exec.runUntil([&] { return rig.mic->starts == 5 && !r.state.lastError.get(); }));
    EXPECT_TRUE(rig.mic->running);
    exec.advance(10 * RecorderService::kMicRetrySeconds);
    exec.runUntil([] { return false; }, 0.05);
    EXPECT_EQ(rig.mic->starts, 5) << "an open microphone is left alone";

    // After the stop, a late device change opens nothing.
    auto change = rig.mic->onDeviceChange;
    r.stop();
    change();
    exec.runUntil([] { return false; }, 0.05);
    EXPECT_EQ(rig.mic->starts, 5);
}

TEST_F(RecorderTest, CreationSettlesInterruptedEntriesAndRecoversOrphansInTheInterfaceLanguage) {
    setInterfaceLanguage(Language::Spanish);
    fs::create_directories(dir());
    auto writeAudio = [&](const std::string& name) { std::ofstream(dir() / name) << "audio"; };
    writeAudio("vell_rec_CRASHED.aac");
    writeAudio("vell_rec_ORPHAN.aac");
    PendingRecording crashed;
    crashed.id = "CRASHED";
    crashed.fileURL = dir() / "vell_rec_CRASHED.aac";
    crashed.startedAt = fromSecondsSinceReferenceDate(5);
    crashed.status = Status::recording;
    crashed.accountID = "acct-1";
    {
        std::error_code ec;
        ASSERT_TRUE(PendingListFile(dir()).save({crashed}, ec));
    }
    auto& r = make();
    auto list = r.pending();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].id, "CRASHED");
    EXPECT_EQ(list[0].status, Status::ready);
    EXPECT_EQ(list[0].lastError, "Recuperada después de una grabación interrumpida.");
    EXPECT_EQ(list[0].accountID, "acct-1");
    EXPECT_EQ(list[1].id, "ORPHAN");
    EXPECT_EQ(list[1].status, Status::ready);
    EXPECT_EQ(onDisk(), list);
    EXPECT_EQ(r.state.lastError.get(), "Recuperada después de una grabación interrumpida.");

    // Ownership adoption gives the unowned orphan to the account and saves.
    EXPECT_EQ(r.assignAccountToUnowned("acct-2"), 1);
    EXPECT_EQ(onDisk()[1].accountID, "acct-2");
    EXPECT_EQ(onDisk()[0].accountID, "acct-1");

    // A second launch finds nothing new.
    recorder.reset();
    EXPECT_EQ(make().pending(), onDisk());
    EXPECT_EQ(recorder->pending().size(), 2u);
    EXPECT_FALSE(recorder->state.lastError.get());
}

TEST_F(RecorderTest, StoreOperationsSaveEveryChange) {
    auto& r = make();
    PendingRecording extra;
    extra.id = "EXTRA";
    extra.fileURL = dir() / "x.aac";
    extra.status = Status::ready;
    r.add(extra);
    EXPECT_TRUE(r.update("EXTRA", [](PendingRecording& p) {
        p.status = Status::failed;
        p.attempts += 1;
        p.lastErrorIsNetwork = true;
    }));
    EXPECT_FALSE(r.update("NOPE", [](PendingRecording&) {}));
    EXPECT_EQ(onDisk().at(0).attempts, 1);
    EXPECT_EQ(onDisk().at(0).status, Status::failed);
    EXPECT_TRUE(r.remove("EXTRA"));
    EXPECT_TRUE(onDisk().empty());
    EXPECT_FALSE(r.remove("EXTRA"));
}

}  // namespace
}  // namespace vell::recording
