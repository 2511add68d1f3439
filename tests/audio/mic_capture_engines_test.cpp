// The order in which MicCapture drives its engines and how it falls back, with engines
// that fail on command (fault injection; the real engines are tested on a real server).
#include <gtest/gtest.h>

#include "audio/errors.h"
#include "audio/mic_capture.h"

namespace vell::audio {
namespace {

struct Script {
    std::vector<std::string> calls;
    bool rejectDevice = false;
    bool failStart = false;
    bool onDefault = false;
    int live = 0;  // engines alive
};

class ScriptedEngine final : public MicCaptureEngine {
public:
    ScriptedEngine(Script& script, std::string name) : s_(script), name_(std::move(name)) { ++s_.live; }
    ~ScriptedEngine() override { --s_.live; }
    void selectDevice(const MicrophoneTarget& t) override {
        s_.calls.push_back(name_ + ".select " + t.uid.value_or("?"));
        if (s_.rejectDevice) throw MicCaptureError::deviceRejected(-50);
    }
    void installTap(BufferHandler) override { s_.calls.push_back(name_ + ".installTap"); }
    void removeTap() override { s_.calls.push_back(name_ + ".removeTap"); }
    void prepare() override { s_.calls.push_back(name_ + ".prepare"); }
    void start() override {
        s_.calls.push_back(name_ + ".start");
        if (s_.failStart) throw CoreAudioError(-10, name_ + "_start");
    }
    void stop() override { s_.calls.push_back(name_ + ".stop"); }
    void setDeviceChangeHandler(std::function<void()>) override {}
    bool runsOnDefault() const override { return s_.onDefault; }

private:
    Script& s_;
    std::string name_;
};

using Calls = std::vector<std::string>;

TEST(MicCaptureTest, OpensThePrimaryInOrderAndClosesInReverse) {
    Script primary;
    MicCapture capture([&] { return std::make_unique<ScriptedEngine>(primary, "p"); });
    capture.start({"mic", 4u}, [](PcmBufferPtr) {}, {});
    EXPECT_TRUE(capture.isRunning());
    EXPECT_FALSE(capture.fellBackToDefault());
    capture.stop();
    EXPECT_EQ(primary.calls, (Calls{"p.select mic", "p.installTap", "p.prepare", "p.start", "p.removeTap", "p.stop"}));
    EXPECT_EQ(primary.live, 0);
    EXPECT_FALSE(capture.isRunning());
}

TEST(MicCaptureTest, TheSystemDefaultSelectsNothing) {
    Script primary;
    MicCapture capture([&] { return std::make_unique<ScriptedEngine>(primary, "p"); });
    capture.start({}, [](PcmBufferPtr) {}, {});
    EXPECT_EQ(primary.calls, (Calls{"p.installTap", "p.prepare", "p.start"}));
}

TEST(MicCaptureTest, ARefusedDeviceIsOpenedByTheFallbackOnTheSameDevice) {
    Script primary, fallback;
    primary.rejectDevice = true;
    std::vector<std::pair<std::string, bool>> health;
    MicCapture capture([&] { return std::make_unique<ScriptedEngine>(primary, "p"); },
                       [&] { return std::make_unique<ScriptedEngine>(fallback, "f"); });
    capture.setHealthReporter([&](const std::string& uid, bool failed) { health.emplace_back(uid, failed); });
    EXPECT_NO_THROW(capture.start({"mic", 4u}, [](PcmBufferPtr) {}, {}));
    EXPECT_EQ(primary.calls, (Calls{"p.select mic", "p.stop"}));  // closed, no tap was installed
    EXPECT_EQ(primary.live, 0);
    EXPECT_EQ(fallback.calls, (Calls{"f.select mic", "f.installTap", "f.prepare", "f.start"}));
    EXPECT_TRUE(capture.isRunning());
    EXPECT_TRUE(capture.usingFallbackEngine());
    EXPECT_FALSE(capture.fellBackToDefault());
    EXPECT_EQ(health, (std::vector<std::pair<std::string, bool>>{{"mic", false}}));
}

TEST(MicCaptureTest, AFallbackOnTheDefaultIsReportedAsFellBack) {
    Script primary, fallback;
    primary.failStart = true;
    fallback.onDefault = true;
    MicCapture capture([&] { return std::make_unique<ScriptedEngine>(primary, "p"); },
                       [&] { return std::make_unique<ScriptedEngine>(fallback, "f"); });
    capture.start({"mic", std::nullopt}, [](PcmBufferPtr) {}, {});
    EXPECT_TRUE(capture.fellBackToDefault());
    EXPECT_EQ(primary.calls, (Calls{"p.select mic", "p.installTap", "p.prepare", "p.start", "p.removeTap", "p.stop"}));
    capture.stop();
    EXPECT_FALSE(capture.fellBackToDefault());
}

TEST(MicCaptureTest, WhenBothRefuseTheFallbacksErrorIsThrownAndNothingStaysOpen) {
    Script primary, fallback;
    primary.failStart = true;
    fallback.rejectDevice = true;
    std::vector<std::pair<std::string, bool>> health;
    MicCapture capture([&] { return std::make_unique<ScriptedEngine>(primary, "p"); },
                       [&] { return std::make_unique<ScriptedEngine>(fallback, "f"); });
    capture.setHealthReporter([&](const std::string& uid, bool failed) { health.emplace_back(uid, failed); });
    try {
        capture.start({"mic", 4u}, [](PcmBufferPtr) {}, {});
        FAIL() << "start succeeded";
    } catch (const MicCaptureError& e) {
        EXPECT_EQ(e.status(), -50);
        EXPECT_STREQ(e.what(), "Microphone selection failed (audio error -50)");
    }
    EXPECT_FALSE(capture.isRunning());
    EXPECT_EQ(primary.live + fallback.live, 0);
    EXPECT_EQ(fallback.calls, (Calls{"f.select mic", "f.stop"}));
    EXPECT_EQ(health, (std::vector<std::pair<std::string, bool>>{{"mic", true}}));
}

TEST(MicCaptureTest, WithoutAFallbackThePrimarysErrorIsThrown) {
    Script primary;
    primary.failStart = true;
    MicCapture capture([&] { return std::make_unique<ScriptedEngine>(primary, "p"); });
    try {
        capture.start({}, [](PcmBufferPtr) {}, {});
        FAIL() << "start succeeded";
    } catch (const CoreAudioError& e) {
        EXPECT_EQ(e.operation(), "p_start");
        EXPECT_STREQ(e.what(), "Audio error -10 (p_start)");
    }
    EXPECT_FALSE(capture.isRunning());
    EXPECT_EQ(primary.live, 0);
}

TEST(MicCaptureTest, StoppingTwiceOrBeforeStartingDoesNothing) {
    Script primary;
    MicCapture capture([&] { return std::make_unique<ScriptedEngine>(primary, "p"); });
    capture.stop();
    EXPECT_TRUE(primary.calls.empty());
    capture.start({}, [](PcmBufferPtr) {}, {});
    capture.stop();
    capture.stop();
    EXPECT_EQ(primary.calls, (Calls{"p.installTap", "p.prepare", "p.start", "p.removeTap", "p.stop"}));
}

TEST(MicCaptureTest, StartingAgainClosesThePreviousEngineFirst) {
    Script primary;
    MicCapture capture([&] { return std::make_unique<ScriptedEngine>(primary, "p"); });
    capture.start({}, [](PcmBufferPtr) {}, {});
    capture.start({}, [](PcmBufferPtr) {}, {});
    EXPECT_EQ(primary.live, 1);
    EXPECT_EQ(primary.calls, (Calls{"p.installTap", "p.prepare", "p.start", "p.removeTap", "p.stop", "p.installTap",
                                    "p.prepare", "p.start"}));
}

}  // namespace
}  // namespace vell::audio
