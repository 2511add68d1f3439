// The insurance recorder's state machine on a manual clock: the microphone queue is the
// test's executor, the microphone a fake that can refuse; the writer and folder are real.
#include <gtest/gtest.h>

#include "base/language.h"
#include "base/manual_executor.h"
#include "base/preference_keys.h"
#include "base/runtime.h"
#include "base/user_defaults.h"
#include "insurance/insurance_recorder.h"
#include "tests/audio/aac_test_decoder.h"
#include "tests/recording/recorder_fakes.h"
#include "tests/support/temp_home.h"

namespace vell::insurance {
namespace {

namespace fs = std::filesystem;

TEST(InsuranceLimits, WindowClampAndByteCap) {
    EXPECT_EQ(clampWindowMinutes(0), 15);
    EXPECT_EQ(clampWindowMinutes(-4), 15);
    EXPECT_EQ(clampWindowMinutes(3), 5);
    EXPECT_EQ(clampWindowMinutes(90), 60);
    EXPECT_EQ(clampWindowMinutes(30), 30);
    EXPECT_EQ(byteCap(60), 120'000'000);
    EXPECT_EQ(byteCap(15), 32'000'000);
    EXPECT_EQ(byteCap(5), 32'000'000);
}

class Recorder : public ::testing::Test {
protected:
    void SetUp() override { runtime::install(&exec, &clock); }
    void TearDown() override {
        recorder.reset();
        exec.runPending();
        runtime::install(nullptr, nullptr);
    }

    void make(std::shared_ptr<Executor> micQueue = nullptr) {
        InsuranceRecorderParts parts;
        parts.microphone = mic;
        parts.resolveDevice = [this] { return device; };
        parts.defaultInputName = [] { return std::optional<std::string>("Built-in microphone"); };
        parts.watchDevices = [this](std::function<void()> changed) {
            devicesChanged = std::move(changed);
            return Subscription([this] { devicesChanged = nullptr; });
        };
        parts.micQueue = micQueue ? micQueue : std::shared_ptr<Executor>(&exec, [](Executor*) {});
        parts.pause = [](double) {};
        parts.directory = dir;
        recorder = std::make_unique<InsuranceRecorder>(std::move(parts), home.defaults());
    }

    void speak(double seconds) {
        for (double t = 0; t < seconds - 1e-9; t += 0.02) {
            ASSERT_TRUE(mic->handler);
            mic->handler(test::sineBlock(16000, 1, 320, 440, 0.3f));
            exec.advance(0.02);
        }
    }

    ManualClock clock;
    ManualExecutor exec{clock};
    test::TempHome home;
    fs::path dir = home.dataHome() / "Vell" / "Insurance";
    std::shared_ptr<recording::fakes::Microphone> mic = std::make_shared<recording::fakes::Microphone>();
    InsuranceDevice device{{std::string("usb-mic"), 7u}, std::string("usb-mic"), std::string("USB microphone")};
    std::function<void()> devicesChanged;
    Published<bool> asleep{false};
    std::unique_ptr<InsuranceRecorder> recorder;
};

TEST_F(Recorder, StoredSettingsAreReadClampedAndEnablingStoresThePrivacyAnswer) {
    home.defaults().set(prefs::kInsuranceWindowMinutes, 90);
    make();
    EXPECT_EQ(recorder->windowMinutes.get(), 60);
    EXPECT_FALSE(recorder->isEnabled.get());
    EXPECT_EQ(recorder->setWindowMinutes(3), 5);
    EXPECT_EQ(home.defaults().integerValue(prefs::kInsuranceWindowMinutes), 5);

    recorder->launch(&asleep);
    exec.runPending();
    EXPECT_EQ(mic->starts, 0) << "off: nothing opens";
    EXPECT_FALSE(recorder->privacyAccepted());
    recorder->acceptPrivacyAndEnable();
    exec.runPending();
    EXPECT_TRUE(recorder->isListening.get());
    EXPECT_EQ(recorder->listeningDeviceName.get(), "USB microphone");
    EXPECT_EQ(mic->lastTarget, device.target);
    EXPECT_EQ(home.defaults().boolValue(prefs::kInsuranceEnabled), true);
    EXPECT_EQ(home.defaults().boolValue(prefs::kInsurancePrivacyAccepted), true);
}

TEST_F(Recorder, AStalledMicrophoneIsRestartedByTheWatchdogAndALiveOneIsLeftAlone) {
    home.defaults().set(prefs::kInsuranceEnabled, true);
    make();
    recorder->launch(&asleep);
    exec.runPending();
    ASSERT_TRUE(recorder->isListening.get());
    speak(20);  // buffers keep coming: four ticks, no restart
    EXPECT_EQ(mic->starts, 1);
    EXPECT_EQ(mic->stops, 0);

    exec.advance(10);  // silence from the device: the tick 10 s after the last buffer restarts it
    EXPECT_EQ(mic->stops, 1);
    EXPECT_EQ(mic->starts, 2);
    EXPECT_TRUE(recorder->isListening.get());
    EXPECT_FALSE(recorder->writer().lastBufferAt()) << "the stall count starts again from the restart";
    auto chunks = recorder->store().chunks();
    ASSERT_EQ(chunks.size(), 1u) << "the stop sealed what was written";
    EXPECT_FALSE(chunks[0].isOpen);
    EXPECT_EQ(chunks[0].activityPercent, 100);

    exec.advance(5);  // 5 s since the restart: not yet a stall
    EXPECT_EQ(mic->starts, 2);
    exec.advance(5);
    EXPECT_EQ(mic->starts, 3);
}

TEST_F(Recorder, SleepStopsTheMicrophoneAndWakeReopensItTwoSecondsLater) {
    home.defaults().set(prefs::kInsuranceEnabled, true);
    make();
    recorder->launch(&asleep);
    exec.runPending();
    speak(1);
    asleep.set(true);
    exec.runPending();
    EXPECT_FALSE(mic->running);
    EXPECT_FALSE(recorder->isListening.get());
    EXPECT_FALSE(recorder->writer().activeURL()) << "the chunk was sealed at will-sleep";
    exec.advance(30);
    EXPECT_EQ(mic->starts, 1) << "no watchdog start while asleep";

    asleep.set(false);
    exec.advance(1.9);
    EXPECT_FALSE(mic->running);
    exec.advance(0.2);
    EXPECT_TRUE(mic->running);
    EXPECT_TRUE(recorder->isListening.get());
}

TEST_F(Recorder, AnotherResolvedDeviceRestartsOnItAndTheSameOneChangesNothing) {
    home.defaults().set(prefs::kInsuranceEnabled, true);
    make();
    recorder->launch(&asleep);
    exec.runPending();
    ASSERT_TRUE(devicesChanged);
    devicesChanged();
    exec.runPending();
    EXPECT_EQ(mic->starts, 1);

    device = InsuranceDevice{};  // the chosen device went away: the default now
    devicesChanged();
    exec.runPending();
    EXPECT_EQ(mic->starts, 2);
    EXPECT_EQ(mic->lastTarget, audio::MicrophoneTarget{});
    EXPECT_EQ(recorder->listeningDeviceName.get(), "Built-in microphone");

    mic->onDeviceChange();  // the device itself reports a move: reopen
    exec.runPending();
    EXPECT_EQ(mic->starts, 3);
}

TEST_F(Recorder, ADeviceThatFailsFallsBackToTheDefaultAndTotalFailureIsRetried) {
    make();
    recorder->launch(&asleep);
    mic->failNext = [] { throw audio::MicCaptureError::deviceRejected(-1); };
    recorder->acceptPrivacyAndEnable();
    exec.runPending();
    EXPECT_TRUE(recorder->isListening.get());
    EXPECT_EQ(mic->starts, 2);
    EXPECT_EQ(mic->lastTarget, audio::MicrophoneTarget{});
    EXPECT_EQ(recorder->listeningDeviceName.get(), "Built-in microphone");

    setInterfaceLanguage(Language::Spanish);
    recorder->disable();
    exec.runPending();
    device = InsuranceDevice{};
    mic->failNext = [] { throw audio::CoreAudioError(-3, "pa_stream_connect_record"); };
    recorder->acceptPrivacyAndEnable();
    exec.runPending();
    EXPECT_FALSE(recorder->isListening.get());
    ASSERT_TRUE(recorder->lastError.get());
    EXPECT_EQ(recorder->lastError.get()->rfind("El modo respaldo no pudo abrir el micrófono: ", 0), 0u);

    mic->failNext = [] { throw audio::MicrophonePermissionError(); };
    exec.advance(5);
    EXPECT_EQ(recorder->lastError.get(), "El modo respaldo necesita permiso de micrófono.");
    setInterfaceLanguage(Language::English);
    exec.advance(5);
    EXPECT_TRUE(recorder->isListening.get()) << "the watchdog retries a failed start";
    EXPECT_FALSE(recorder->lastError.get());
}

TEST_F(Recorder, DisablingWhileAStartIsInFlightLeavesNothingRunningAndNoFiles) {
    make();
    recorder->launch(&asleep);
    recorder->acceptPrivacyAndEnable();
    EXPECT_TRUE(recorder->starting());
    // The queued start runs, and the capture delivers a buffer before the stop behind it.
    exec.post([this] {
        if (mic->handler) mic->handler(test::sineBlock(16000, 1, 320, 440, 0.3f));
    });
    recorder->disable();
    exec.runPending();
    exec.advance(30);
    EXPECT_FALSE(mic->running);
    EXPECT_FALSE(recorder->isListening.get());
    EXPECT_FALSE(recorder->starting());
    EXPECT_FALSE(fs::exists(dir));
    EXPECT_EQ(home.defaults().boolValue(prefs::kInsuranceEnabled), false);
}

TEST_F(Recorder, ShutdownErasesTheBufferEvenWithAChunkOpenAndThenReportsDone) {
    home.defaults().set(prefs::kInsuranceEnabled, true);
    make();
    recorder->launch(&asleep);
    exec.runPending();
    speak(31);
    ASSERT_EQ(recorder->store().chunks().size(), 2u);
    bool done = false;
    recorder->shutdown([&] { done = true; });
    exec.runPending();
    EXPECT_TRUE(done);
    EXPECT_FALSE(mic->running);
    EXPECT_FALSE(fs::exists(dir));
    EXPECT_EQ(home.defaults().boolValue(prefs::kInsuranceEnabled), true) << "the switch survives a quit";
}

TEST_F(Recorder, ShutdownWithAMicrophoneQueueThatHangsStillErasesWithinTheLimit) {
    // A second executor that the test never drives: the queued stop never runs.
    auto stuck = std::make_shared<ManualExecutor>(clock);
    make(stuck);
    fs::create_directories(dir);
    std::ofstream(dir / "ins_1_2_0.aac") << "x";
    bool done = false;
    recorder->shutdown([&] { done = true; });
    exec.advance(kShutdownWaitSeconds * 0.8);
    EXPECT_FALSE(done);
    exec.advance(kShutdownWaitSeconds * 0.2);
    EXPECT_TRUE(done);
    EXPECT_FALSE(fs::exists(dir));
}

}  // namespace
}  // namespace vell::insurance
