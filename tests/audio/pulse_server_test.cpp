// The private sound server that the capture and recording tests stand on, checked with the
// stock PulseAudio tools so a fault in the fixture is not mistaken for one in our code.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <iterator>
#include <chrono>
#include <fstream>
#include <thread>

#include "tests/support/pulse_server.h"
#include "tests/support/temp_home.h"

namespace vell::test {
namespace {

std::vector<float> readFloats(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<float> out(bytes.size() / sizeof(float));
    std::memcpy(out.data(), bytes.data(), out.size() * sizeof(float));
    return out;
}

std::vector<float> nonSilent(const std::vector<float>& samples) {
    std::vector<float> out;
    for (float s : samples) {
        if (s != 0.0f || !out.empty()) out.push_back(s);
    }
    while (!out.empty() && out.back() == 0.0f) out.pop_back();
    return out;
}

TEST(PulseServerTest, OffersTheFakeMicrophoneAndTheSpeakersAsDefaults) {
    PulseServer pulse;
    auto info = pulse.pactl("info");
    EXPECT_NE(info.output.find("Default Sink: speakers"), std::string::npos) << info.output;
    EXPECT_NE(info.output.find("Default Source: fakemic"), std::string::npos) << info.output;
    auto sources = pulse.pactl("list short sources").output;
    EXPECT_NE(sources.find("speakers.monitor"), std::string::npos);
}

TEST(PulseServerTest, AudioWrittenToTheMicComesOutOfTheSource) {
    PulseServer pulse;
    TempHome home;
    auto file = home.tmp() / "mic.raw";
    auto r = runCommand("timeout 2 parecord --latency-msec=20 --device=fakemic --raw --format=float32le --rate=16000 --channels=1 " +
                        file.string() + " >/dev/null 2>&1 & sleep 0.3");
    ASSERT_EQ(r.status, 0);
    pulse.writeMic(sineWave(440, PulseServer::kMicRate, 0.5));
    std::this_thread::sleep_for(std::chrono::milliseconds(1900));
    auto tone = nonSilent(readFloats(file));
    ASSERT_GT(tone.size(), 7000u);
    EXPECT_NEAR(zeroCrossingFrequency(tone, PulseServer::kMicRate), 440, 10);
    EXPECT_NEAR(rms(tone), 0.5 / std::sqrt(2.0), 0.03);
}

TEST(PulseServerTest, PlayedToneReachesTheSpeakersMonitor) {
    PulseServer pulse;
    TempHome home;
    auto file = home.tmp() / "monitor.raw";
    runCommand("timeout 3 parecord --latency-msec=20 --device=speakers.monitor --raw --format=float32le --rate=48000 --channels=1 " +
               file.string() + " >/dev/null 2>&1 & sleep 0.3");
    EXPECT_EQ(pulse.playTone(1000, 0.5), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(3000));
    auto tone = nonSilent(readFloats(file));
    ASSERT_GT(tone.size(), 12000u);
    EXPECT_NEAR(zeroCrossingFrequency(tone, 48000), 1000, 20);
}

}  // namespace
}  // namespace vell::test
