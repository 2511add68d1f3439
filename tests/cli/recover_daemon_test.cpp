// Recovering speech end to end: spoken English (espeak-ng) goes into the fake microphone of a
// private PulseAudio, a real `vell daemon` buffers it in insurance mode, and `vell recover`
// gets recognisable words back from the reference service, copies them to a real X
// clipboard (Xvfb and xclip) and plays the selection into the sound server.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "tests/support/child_process.h"
#include "tests/support/devserver_process.h"
#include "tests/support/private_bus.h"
#include "tests/support/pulse_server.h"
#include "tests/support/spoken_english.h"
#include "tests/support/temp_home.h"

namespace vell {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::readAll;

class RecoverDaemon : public ::testing::Test {
protected:
    void SetUp() override {
        if (test::runCommand("command -v Xvfb xclip espeak-ng >/dev/null").status != 0) GTEST_SKIP() << "needs Xvfb, xclip, espeak-ng";
        // A private X display for the clipboard; the daemon inherits it.
        xvfb = test::spawnShell("exec Xvfb :" + std::to_string(display) + " -nolisten tcp", home.tmp() / "xvfb.log");
        std::this_thread::sleep_for(500ms);
        ::setenv("DISPLAY", (":" + std::to_string(display)).c_str(), 1);
        ::unsetenv("WAYLAND_DISPLAY");
        daemon = test::spawnLogged({vell(), "--lang", "en", "-v", "daemon"}, log());
        ASSERT_GT(daemon, 0);
        for (int i = 0; i < 100 && run("status --json").output.find("\"host\":true") == std::string::npos; ++i) {
            std::this_thread::sleep_for(100ms);
        }
        ASSERT_EQ(run("login --email a@vell.test", "pw-a").status, 0) << readAll(log());
    }
    void TearDown() override {
        test::endProcess(daemon);
        // xclip, serving the selection, leaves with the display.
        test::endProcess(xvfb);
        ::unsetenv("DISPLAY");
    }
    std::string vell() const { return test::binaryPath("vell").string(); }
    fs::path log() const { return home.tmp() / "daemon.log"; }
    test::CommandResult run(const std::string& arguments, const std::string& input = "") {
        if (!input.empty()) return test::runCommand("printf '%s\\n' '" + input + "' | " + vell() + " --lang en " + arguments + " 2>&1");
        return test::runCommand(vell() + " --lang en " + arguments + " 2>/dev/null </dev/null");
    }

    const int display = 90 + ::getpid() % 500;
    test::TempHome home;
    test::PrivateBus bus;
    test::PulseServer pulse;
    test::DevServer server{{.users = {"a@vell.test:pw-a"}}};
    pid_t xvfb = -1;
    pid_t daemon = -1;
};

TEST_F(RecoverDaemon, SpokenEnglishInTheBufferComesBackAsWordsOnTheClipboardAndPlays) {
    static constexpr const char* kSaid =
        "good morning everybody. the weather is nice today and we are going to the park. please send me the report";
    const auto speech = test::spokenEnglish(kSaid);
    ASSERT_FALSE(speech.empty());
    ASSERT_EQ(run("insurance on --accept-privacy").status, 0) << readAll(log());
    std::this_thread::sleep_for(1s);
    pulse.writeMic(speech);
    // Until the microphone has delivered all of it, and a little more.
    for (int i = 0; i < 400 && pulse.queuedMicSeconds() > 0; ++i) std::this_thread::sleep_for(100ms);
    std::this_thread::sleep_for(2s);

    auto recovered = run("recover --minutes 1 --copy");
    ASSERT_EQ(recovered.status, 0) << recovered.output << readAll(log());
    // Words of what was said come back. The recogniser's own accuracy is tested on clean
    // audio in the reference service's tests; here the speech went through a real-time
    // sound server and a 32 kbit/s buffer, and on a loaded machine it loses syllables.
    EXPECT_GE(test::wordsHeard(kSaid, recovered.output), 2) << recovered.output;
    auto clipboard = test::runCommand("xclip -selection clipboard -out");
    ASSERT_EQ(clipboard.status, 0);
    EXPECT_EQ(clipboard.output + "\n", recovered.output);

    // The preview: a playback stream appears on the sound server while it plays, and the
    // preview file is gone once it ended.
    pid_t player = test::spawnShell(vell() + " --lang en recover --minutes 1 --play", home.tmp() / "play.log");
    bool heard = false;
    for (int i = 0; i < 200 && !heard; ++i) {
        heard = pulse.pactl("list sink-inputs").output.find("Recovered speech preview") != std::string::npos;
        if (!heard) std::this_thread::sleep_for(100ms);
    }
    EXPECT_TRUE(heard) << readAll(home.tmp() / "play.log") << readAll(log());
    // The preview is in Vell's private folder, the user's alone.
    const fs::path temporary = fs::path(std::getenv("XDG_RUNTIME_DIR")) / "vell";
    bool previewSeen = false;
    for (const auto& e : fs::directory_iterator(temporary)) {
        if (!e.path().filename().string().starts_with("insurance-preview-")) continue;
        previewSeen = true;
        EXPECT_EQ(e.symlink_status().permissions(), fs::perms::owner_read | fs::perms::owner_write);
    }
    EXPECT_TRUE(previewSeen);
    EXPECT_EQ(fs::status(temporary).permissions(), fs::perms::owner_all);
    int status = -1;
    waitpid(player, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << readAll(home.tmp() / "play.log");
    bool leftOver = false;
    for (const auto& folder : {home.tmp(), temporary}) {
        for (const auto& e : fs::directory_iterator(folder)) {
            leftOver = leftOver || e.path().filename().string().find("insurance-") != std::string::npos;
        }
    }
    EXPECT_FALSE(leftOver) << "temporary files of the transcription or the preview stayed";
}

}  // namespace
}  // namespace vell
