// Insurance mode under a real `vell daemon`: a private session bus, a private PulseAudio with
// a tone on the fake microphone, FFmpeg decoding what was written. Switching off and
// stopping the host leave no audio behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <algorithm>
#include <fstream>
#include <set>
#include <nlohmann/json.hpp>
#include <thread>

#include "cli/command.h"
#include "tests/audio/aac_test_decoder.h"
#include "tests/support/child_process.h"
#include "tests/support/devserver_process.h"
#include "tests/support/private_bus.h"
#include "tests/support/pulse_server.h"
#include "tests/support/temp_home.h"

extern char** environ;

namespace vell {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::readAll, test::spawnLogged;

bool hasOpenChunk(const fs::path& dir) {
    std::error_code ec;
    for (auto& e : fs::directory_iterator(dir, ec))
        if (e.path().filename().string().starts_with("open_")) return true;
    return false;
}

template <class Pred>
bool within(std::chrono::milliseconds limit, Pred pred) {
    for (auto waited = 0ms; waited < limit; waited += 100ms) {
        if (pred()) return true;
        std::this_thread::sleep_for(100ms);
    }
    return pred();
}

class InsuranceDaemon : public ::testing::Test {
protected:
    void SetUp() override {
        pulse.writeMic(tone(20));
        daemon = spawnLogged({vell(), "--lang", "en", "-v", "daemon"}, log());
        ASSERT_GT(daemon, 0);
        ASSERT_TRUE(within(10s, [&] { return run("status --json").output.find("\"host\":true") != std::string::npos; }))
            << readAll(log());
    }
    void TearDown() override {
        if (daemon > 0) {
            ::kill(daemon, SIGKILL);
            waitpid(daemon, nullptr, 0);
        }
    }
    static std::vector<float> tone(double seconds) {
        std::vector<float> out(std::size_t(seconds * 16000));
        for (std::size_t i = 0; i < out.size(); ++i) out[i] = 0.3f * float(std::sin(2 * M_PI * 440 * double(i) / 16000));
        return out;
    }
    std::string vell() const { return test::binaryPath("vell").string(); }
    fs::path log() const { return home.tmp() / "daemon.log"; }
    fs::path folder() const { return home.dataHome() / "Vell" / "Insurance"; }
    test::CommandResult run(const std::string& arguments) {
        return test::runCommand(vell() + " --lang en " + arguments + " 2>&1 </dev/null");
    }

    test::TempHome home;
    test::PrivateBus bus;
    test::PulseServer pulse;
    test::DevServer server{{.users = {"a@vell.test:pw-a"}}};
    pid_t daemon = -1;
};

TEST_F(InsuranceDaemon, OnBuffersTheMicrophoneOffErasesItAndQuittingErasesItToo) {
    auto status = run("insurance status --json");
    ASSERT_EQ(status.status, 0) << status.output;
    auto s = nlohmann::json::parse(status.output);
    EXPECT_FALSE(s["enabled"].get<bool>());
    EXPECT_TRUE(s["host"].get<bool>());

    // A script that did not accept the privacy explanation does not switch it on.
    auto refused = run("insurance on");
    EXPECT_EQ(refused.status, cli::kExitUsage) << refused.output;
    EXPECT_NE(refused.output.find("--accept-privacy"), std::string::npos) << refused.output;
    EXPECT_FALSE(nlohmann::json::parse(run("insurance status --json").output)["enabled"].get<bool>());

    auto on = run("insurance on --accept-privacy --json");
    ASSERT_EQ(on.status, 0) << on.output << readAll(log());
    EXPECT_TRUE(nlohmann::json::parse(on.output)["listening"].get<bool>()) << on.output;
    ASSERT_TRUE(within(5s, [&] { return hasOpenChunk(folder()); })) << readAll(log());

    std::this_thread::sleep_for(1500ms);
    const auto exported = home.tmp() / "last.aac";
    auto ex = run("insurance export --minutes 1 -o " + exported.string());
    ASSERT_EQ(ex.status, 0) << ex.output;
    auto decoded = test::decodeAudioFile(exported);
    ASSERT_TRUE(decoded.ok) << decoded.error;
    EXPECT_EQ(decoded.channels, 1);
    EXPECT_EQ(decoded.sampleRate, 16000);
    EXPECT_GT(decoded.seconds(), 1.0);
    const auto& x = decoded.samples[0];
    EXPECT_GT(test::toneEnergy(x, 16000, 440, 4000, x.size()), 100 * test::toneEnergy(x, 16000, 1000, 4000, x.size()));
    auto chunks = nlohmann::json::parse(run("insurance chunks --json").output);
    ASSERT_FALSE(chunks.empty());
    EXPECT_FALSE(chunks[0]["open"].get<bool>());
    EXPECT_GT(chunks[0]["activity"].get<int>(), 50) << "a tone is sound";

    // A window out of range is refused, not quietly clamped.
    auto tooLong = run("insurance window 90");
    EXPECT_EQ(tooLong.status, 2) << tooLong.output;
    auto window = run("insurance window 60");
    EXPECT_EQ(window.status, 0);
    EXPECT_NE(window.output.find("Window kept: 60 min"), std::string::npos) << window.output;

    auto off = run("insurance off");
    ASSERT_EQ(off.status, 0) << off.output;
    EXPECT_TRUE(within(3s, [&] { return !fs::exists(folder()); })) << "switching off erases the buffer";

    // On again, then the host stops: the buffer goes with it.
    ASSERT_EQ(run("insurance on").status, 0) << "accepted once, not asked again";
    ASSERT_TRUE(within(5s, [&] { return hasOpenChunk(folder()); })) << readAll(log());
    ::kill(daemon, SIGTERM);
    int wstatus = 0;
    waitpid(daemon, &wstatus, 0);
    daemon = -1;
    EXPECT_FALSE(fs::exists(folder())) << readAll(log());

    // Without a host: the stored switch is shown, and switching on says what to start.
    auto offline = run("insurance status --json");
    EXPECT_TRUE(nlohmann::json::parse(offline.output)["enabled"].get<bool>());
    auto needs = run("insurance on --accept-privacy");
    EXPECT_EQ(needs.status, cli::kExitFailure);
    EXPECT_NE(needs.output.find("vell daemon"), std::string::npos) << needs.output;
}

std::set<std::string> names(const fs::path& dir) {
    std::set<std::string> out;
    std::error_code ec;
    for (auto& e : fs::directory_iterator(dir, ec)) out.insert(e.path().filename().string());
    return out;
}

// A host that dies without its quit leaves the buffer behind: the next host erases it before
// it records, and "off" erases it with no host running at all.
TEST_F(InsuranceDaemon, ABufferACrashLeftIsErasedByTheNextHostAndByOffWithoutAHost) {
    ASSERT_EQ(run("insurance on --accept-privacy").status, 0) << readAll(log());
    auto crash = [&] {
        EXPECT_TRUE(within(5s, [&] { return hasOpenChunk(folder()); })) << readAll(log());
        ::kill(daemon, SIGKILL);
        waitpid(daemon, nullptr, 0);
        daemon = -1;
        return names(folder());
    };
    const auto left = crash();
    ASSERT_FALSE(left.empty());
    daemon = spawnLogged({vell(), "--lang", "en", "-v", "daemon"}, log());
    ASSERT_TRUE(within(10s, [&] {
        const auto now = names(folder());
        return std::none_of(left.begin(), left.end(), [&](const std::string& n) { return now.count(n) > 0; });
    })) << readAll(log());
    ASSERT_FALSE(crash().empty());

    auto off = run("insurance off");
    EXPECT_EQ(off.status, 0) << off.output;
    EXPECT_NE(off.output.find("The buffer an earlier run left on disk was erased."), std::string::npos) << off.output;
    EXPECT_FALSE(hasOpenChunk(folder()));
    EXPECT_TRUE(names(folder()).empty());
    EXPECT_FALSE(nlohmann::json::parse(run("insurance status --json").output)["enabled"].get<bool>());
}

}  // namespace
}  // namespace vell
