// The recorder over the real mixer and AAC encoder: what the microphone delivered is what
// a player hears back from the file the pending entry names.
#include <gtest/gtest.h>

#include "audio/realtime_mixer.h"
#include "base/manual_executor.h"
#include "base/runtime.h"
#include "recording/recorder_service.h"
#include "tests/audio/aac_test_decoder.h"
#include "tests/recording/recorder_fakes.h"
#include "tests/support/temp_home.h"

namespace vell::recording {
namespace {

TEST(RecorderWithRealMixer, MicrophoneAudioEndsUpInTheReadyFile) {
    test::TempHome home;
    ManualClock clock;
    ManualExecutor exec(clock);
    SystemClock wall;
    runtime::install(&exec, &clock);
    fakes::Rig rig;
    rig.system->fail = true;  // microphone only: the mix is exactly the tone
    auto parts = rig.parts();
    parts.makeMixer = [&wall](const std::filesystem::path& file, double rate) -> std::unique_ptr<audio::RecordingMixer> {
        audio::RealtimeMixer::Options options;
        options.clock = &wall;
        options.keepToClock = false;  // the blocks below come all at once, not in real time
        return std::make_unique<audio::RealtimeMixer>(file, rate, options);
    };
    {
        RecorderService recorder(parts, home.dataHome() / "Vell" / "Recordings");
        std::optional<bool> started;
        recorder.start({}, [&](bool ok) { started = ok; });
        ASSERT_TRUE(exec.runUntil([&] { return started.has_value(); }));
        ASSERT_TRUE(*started) << recorder.state.lastError.get().value_or("");

        // Two seconds of a 440 Hz tone at 48 kHz in 20 ms blocks, as a capture engine delivers.
        const double rate = 48'000;
        const std::size_t block = 960;
        for (std::size_t offset = 0; offset < 2 * 48'000; offset += block) {
            rig.mic->handler(test::sineBlock(rate, 1, block, 440, 0.5f, offset));
        }
        recorder.stop();

        ASSERT_EQ(recorder.pending().size(), 1u);
        const auto entry = recorder.pending()[0];
        EXPECT_EQ(entry.status, PendingRecording::Status::ready);
        auto decoded = test::decodeAudioFile(entry.fileURL);
        ASSERT_TRUE(decoded.ok) << decoded.error;
        EXPECT_EQ(decoded.container, "aac");
        EXPECT_EQ(decoded.sampleRate, 44'100);
        EXPECT_NEAR(decoded.seconds(), 2.0, 0.15);
        // The tone is there at its level (a 0.5 sine has an RMS of about 0.354).
        EXPECT_NEAR(test::rmsOf(decoded.samples[0], 4410, 44'100), 0.354, 0.05);
    }
    runtime::install(nullptr, nullptr);
}

}  // namespace
}  // namespace vell::recording
