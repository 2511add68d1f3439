// vell upload: one pass over the pending list left by earlier runs.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <thread>
#include <nlohmann/json.hpp>

#include "base/paths.h"
#include "recording/pending_list.h"
#include "tests/cli/cli_env.h"
#include "tests/support/devserver_process.h"
#include "tests/support/tmpfs_mount.h"

namespace vell::test {
namespace {

namespace fs = std::filesystem;
using recording::PendingRecording;

std::string accountIdOf(const TempHome& home) {
    auto who = runVell(home, "whoami");
    auto open = who.output.find("(id ");
    auto close = who.output.find_first_of(",)", open);
    return open == std::string::npos ? "" : who.output.substr(open + 4, close - open - 4);
}

TEST(CliUpload, UploadsPendingRecordingsAndReportsFailures) {
    VELL_REQUIRE_DEVSERVER();
    TempHome home;
    DevServer server({.users = {"up@vell.test:pw"}});
    ASSERT_EQ(runVell(home, "login --email up@vell.test", "pw").status, 0);
    std::string account = accountIdOf(home);
    ASSERT_FALSE(account.empty());

    auto nothing = runVell(home, "upload");
    EXPECT_EQ(nothing.status, 0) << nothing.output;
    EXPECT_NE(nothing.output.find("Nothing to upload."), std::string::npos) << nothing.output;

    fs::create_directories(paths::recordingsDirectory());
    std::vector<PendingRecording> list;
    for (std::string id : {"one", "two"}) {
        PendingRecording r;
        r.id = id;
        r.fileURL = paths::recordingsDirectory() / ("vell_rec_" + id + ".aac");
        std::ofstream(r.fileURL, std::ios::binary) << std::string(100'000, id[0]);
        r.startedAt = std::chrono::system_clock::now() - std::chrono::minutes(5);
        r.finishedAt = std::chrono::system_clock::now();
        r.status = PendingRecording::Status::ready;
        r.accountID = account;
        list.push_back(r);
    }
    recording::PendingListFile manifest(paths::recordingsDirectory());
    std::error_code ec;
    ASSERT_TRUE(manifest.save(list, ec)) << ec.message();

    server.addFault({{"method", "POST"}, {"path", "upload/start"}, {"action", "status"}, {"status", 503}});
    auto partly = runVell(home, "upload");
    EXPECT_EQ(partly.status, 1) << partly.output;
    EXPECT_NE(partly.output.find("vell_rec_one.aac"), std::string::npos) << partly.output;
    EXPECT_NE(partly.output.find("Server error (503)."), std::string::npos) << partly.output;
    auto stored = manifest.load();
    ASSERT_TRUE(stored);
    EXPECT_EQ((*stored)[0].status, PendingRecording::Status::failed);
    EXPECT_EQ((*stored)[0].attempts, 1);
    EXPECT_EQ((*stored)[1].status, PendingRecording::Status::uploaded);

    auto rest = runVell(home, "--lang es upload --json");
    EXPECT_EQ(rest.status, 0) << rest.output;
    auto outcome = nlohmann::json::parse(rest.output, nullptr, false);  // one object, no progress off a terminal
    ASSERT_TRUE(outcome.is_object()) << rest.output;
    EXPECT_EQ(outcome["uploaded"], 1);
    EXPECT_EQ(outcome["failed"], 0);
    ASSERT_EQ(outcome["attempts"].size(), 1u);
    EXPECT_EQ(outcome["attempts"][0]["file"], "vell_rec_one.aac");
    stored = manifest.load();
    EXPECT_EQ((*stored)[0].status, PendingRecording::Status::uploaded);
    EXPECT_EQ(server.recordings().size(), 2u);
    for (const auto& r : server.recordings()) {
        auto file = paths::recordingsDirectory() / r.value("filename", "");
        EXPECT_EQ(r.value("sha256", ""), sha256File(file));
    }

    // The id `vell pending` prints reaches the service's copy of that recording.
    auto shown = runVell(home, "show two --json");
    auto detail = nlohmann::json::parse(shown.output, nullptr, false);
    ASSERT_TRUE(detail.is_object()) << shown.output;
    EXPECT_EQ(detail.value("id", "").rfind("rec_", 0), 0u) << shown.output;
    // For scripts: ISO 8601 times with an offset, plain paths.
    auto pending = nlohmann::json::parse(runVell(home, "pending --json").output, nullptr, false);
    ASSERT_TRUE(pending.is_array() && pending.size() == 2u) << pending.dump();
    EXPECT_EQ(pending[1].value("file", ""), (paths::recordingsDirectory() / "vell_rec_two.aac").string());
    EXPECT_FALSE(pending[1].contains("fileURL"));
    EXPECT_TRUE(std::regex_match(pending[1].value("startedAt", ""),
                                 std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d)")))
        << pending[1].dump();
    EXPECT_TRUE(std::regex_match(detail.value("createdAt", ""), std::regex(R"(\d{4}-.*T.*[+-]\d\d:\d\d)"))) << detail.dump();
}

std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t n = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

TEST(CliUpload, ADiskThatFillsUpMidPassStopsThePassWithoutDivergingState) {
    VELL_REQUIRE_DEVSERVER();
    TempHome home;
    TmpfsMount disk(home.dataHome(), 2 * 1024);
    if (!disk.mounted()) GTEST_SKIP() << disk.error();
    DevServer server({.users = {"full@vell.test:pw"}});
    ASSERT_EQ(runVell(home, "login --email full@vell.test", "pw").status, 0);
    fs::create_directories(paths::recordingsDirectory());
    // Two audio files no entry names yet: this run's recovery gives them to the account.
    for (std::string id : {"A", "B"}) {
        std::ofstream(paths::recordingsDirectory() / ("vell_rec_" + id + ".aac"), std::ios::binary)
            << std::string(100'000, id[0]);
    }
    // The first upload is held up at the service while the disk fills.
    server.addFault({{"method", "POST"}, {"path", "upload/start"}, {"action", "delay"}, {"delayMs", 2500}});
    const std::string filler = (home.dataHome() / ".filler").string();
    auto run = runCommand("( env -u DBUS_SESSION_BUS_ADDRESS XDG_RUNTIME_DIR='" + home.root().string() +
                          "' '" + binaryPath("vell").string() + "' --lang en upload & pid=$!; sleep 1; "
                          "dd if=/dev/zero of='" + filler + "' bs=4k 2>/dev/null; wait $pid ) 2>&1");
    EXPECT_EQ(run.status, 1) << run.output;
    EXPECT_NE(run.output.find("Uploaded: 1, failed: 0"), std::string::npos) << run.output;
    EXPECT_EQ(occurrences(run.output, "The upload stopped because Vell could not save its records on this computer "
                                      "(No space left on device)."),
              1u)
        << run.output;
    EXPECT_LE(occurrences(run.output, "No space left on device"), 2u) << run.output;  // one log line, one sentence
    EXPECT_EQ(server.recordings().size(), 1u);  // the pass stopped after the first

    // Space again: the next pass settles what the files could not say, and nothing is sent twice.
    disk.unfill();
    auto again = runVell(home, "upload");
    EXPECT_EQ(again.status, 0) << again.output;
    EXPECT_EQ(server.recordings().size(), 2u);
    auto stored = recording::PendingListFile(paths::recordingsDirectory()).load();
    ASSERT_TRUE(stored);
    ASSERT_EQ(stored->size(), 2u);
    for (const auto& r : *stored) EXPECT_EQ(r.status, PendingRecording::Status::uploaded) << r.id;
    std::ifstream receipts(paths::vellDataDirectory() / "upload-receipts.json");
    const std::string receiptText((std::istreambuf_iterator<char>(receipts)), {});
    EXPECT_NE(receiptText.find("\"A\""), std::string::npos) << receiptText;
    EXPECT_NE(receiptText.find("\"B\""), std::string::npos) << receiptText;
}

// What a person sees in an 80-column terminal (tmux, read back with capture-pane) while a
// 200 MiB recording uploads: one line that moves, with bytes, rate and time left.
TEST(CliUpload, OnAnEightyColumnTerminalTheProgressIsOneMovingLine) {
    VELL_REQUIRE_DEVSERVER();
    if (runCommand("command -v tmux").status != 0) GTEST_SKIP() << "tmux is not installed";
    TempHome home;
    DevServer server({.users = {"tty@vell.test:pw"}});
    ASSERT_EQ(runVell(home, "login --email tty@vell.test", "pw").status, 0);
    fs::create_directories(paths::recordingsDirectory());
    PendingRecording r;
    r.id = "big";
    r.fileURL = paths::recordingsDirectory() / "vell_rec_big.aac";
    std::ofstream(r.fileURL, std::ios::binary).close();
    fs::resize_file(r.fileURL, 200ull << 20);
    r.startedAt = std::chrono::system_clock::now() - std::chrono::minutes(90);
    r.finishedAt = std::chrono::system_clock::now();
    r.status = PendingRecording::Status::ready;
    r.accountID = accountIdOf(home);
    std::error_code ec;
    ASSERT_TRUE(recording::PendingListFile(paths::recordingsDirectory()).save({r}, ec)) << ec.message();
    // Loopback is too fast to watch: the service holds each 8 MiB part for a moment.
    server.addFault({{"method", "PUT"}, {"path", "/part"}, {"action", "delay"}, {"delayMs", 250}, {"times", 25}});

    const std::string socket = (home.root() / "tmux.sock").string();
    const std::string tmux = "tmux -S '" + socket + "' ";
    const std::string done = (home.root() / "done").string();
    ASSERT_EQ(runCommand(tmux + "new-session -d -x 80 -y 24 -s up \"env -u DBUS_SESSION_BUS_ADDRESS XDG_RUNTIME_DIR='" +
                         home.root().string() + "' '" + binaryPath("vell").string() +
                         "' --lang en upload; touch '" + done + "'; sleep 60\"")
                  .status,
              0);
    std::vector<std::string> progressLines;
    std::string last;
    for (int i = 0; i < 240 && !fs::exists(done); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        last = runCommand(tmux + "capture-pane -p -t up").output;
        std::vector<std::string> moving;
        std::istringstream lines(last);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), 80u * 4) << line;  // bytes; the pane cuts at 80 columns anyway
            if (line.find(" / 200.0 MiB") != std::string::npos) moving.push_back(line);
        }
        EXPECT_LE(moving.size(), 1u) << last;  // redrawn in place, never wrapped onto a second line
        if (moving.size() == 1 && (progressLines.empty() || progressLines.back() != moving[0])) {
            progressLines.push_back(moving[0]);
        }
    }
    last = runCommand(tmux + "capture-pane -p -t up").output;
    runCommand(tmux + "kill-server");
    ASSERT_TRUE(fs::exists(done)) << last;
    EXPECT_NE(last.find("Uploaded: 1, failed: 0"), std::string::npos) << last;
    ASSERT_GE(progressLines.size(), 3u) << last;
    bool rateAndTimeLeft = false;
    for (const auto& line : progressLines) {
        if (line.find("/s  0:") != std::string::npos && line.find(" left") != std::string::npos) rateAndTimeLeft = true;
    }
    EXPECT_TRUE(rateAndTimeLeft) << progressLines.back();
}

TEST(CliUpload, AServiceThatIsDownIsNamedWithTheSystemsReason) {
    VELL_REQUIRE_DEVSERVER();
    TempHome home;
    DevServer server({.users = {"down@vell.test:pw"}});
    ASSERT_EQ(runVell(home, "login --email down@vell.test", "pw").status, 0);
    server.kill();
    auto upload = runVell(home, "upload");
    EXPECT_EQ(upload.status, 1) << upload.output;
    EXPECT_NE(upload.output.find("No connection. ("), std::string::npos) << upload.output;
    EXPECT_NE(upload.output.find("127.0.0.1"), std::string::npos) << upload.output;
    EXPECT_EQ(upload.output.find("[error]"), std::string::npos) << "one line, no log noise:\n" << upload.output;
}

}  // namespace
}  // namespace vell::test
