// The recorder tells when its microphone is the system default standing in for the chosen
// one, for as long as the recording runs.
#include <gtest/gtest.h>

#include "base/manual_executor.h"
#include "base/runtime.h"
#include "recording/recorder_service.h"
#include "tests/recording/recorder_fakes.h"
#include "tests/support/temp_home.h"

namespace vell::recording {
namespace {

class UnpluggedChooser final : public audio::MicrophoneChooser {
public:
    audio::MicrophoneTarget recordingTarget() override { return {}; }  // the default stands in
    audio::MicrophoneTarget insuranceTarget() override { return {}; }
    bool recordingFellBackToDefault() override { return unplugged; }
    bool unplugged = true;
};

TEST(RecorderMicrophoneFallback, IsShownWhileTheDefaultStandsInForTheChosenMicrophone) {
    test::TempHome home;
    ManualClock clock;
    ManualExecutor exec(clock);
    runtime::install(&exec, &clock);
    {
        fakes::Rig rig;
        auto chooser = std::make_shared<UnpluggedChooser>();
        auto parts = rig.parts();
        parts.chooser = chooser;
        RecorderService recorder(parts, home.dataHome() / "Vell" / "Recordings");
        auto start = [&] {
            std::optional<bool> started;
            recorder.start({}, [&](bool ok) { started = ok; });
            EXPECT_TRUE(exec.runUntil([&] { return started.has_value(); }));
            return started.value_or(false);
        };
        ASSERT_TRUE(start());
        EXPECT_TRUE(recorder.state.microphoneFellBack.get());
        recorder.stop();
        EXPECT_FALSE(recorder.state.microphoneFellBack.get());

        // Plugged back in: the next recording opens it and shows nothing.
        chooser->unplugged = false;
        ASSERT_TRUE(start());
        EXPECT_FALSE(recorder.state.microphoneFellBack.get());
        // Unplugged during the recording: the reopen on the device change shows it.
        chooser->unplugged = true;
        rig.mic->onDeviceChange();
        exec.runUntil([&] { return recorder.state.microphoneFellBack.get(); });
        EXPECT_TRUE(recorder.state.microphoneFellBack.get());
        EXPECT_EQ(rig.mic->starts, 3);
        recorder.stop();
    }
    runtime::install(nullptr, nullptr);
}

}  // namespace
}  // namespace vell::recording
