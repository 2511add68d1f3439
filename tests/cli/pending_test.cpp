#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "base/instance_lock.h"
#include "cli/command.h"
#include "tests/support/temp_home.h"

namespace vell {
namespace {

namespace fs = std::filesystem;

class PendingCommand : public ::testing::Test {
protected:
    fs::path recordings() const { return home.dataHome() / "Vell" / "Recordings"; }
    void writeAudio(const std::string& name, std::string_view bytes = "AUDIO") {
        fs::create_directories(recordings());
        std::ofstream(recordings() / name, std::ios::binary) << bytes;
    }
    test::CommandResult vell(const std::string& args) {
        return test::runCommand(test::binaryPath("vell").string() + " " + args + " 2>/dev/null");
    }
    test::TempHome home;
};

TEST_F(PendingCommand, OrphanRecordingIsListedAsReadyWithTheRecoveryNote) {
    writeAudio("vell_rec_4F1C2D3E-0000-4000-8000-00000000ABCD.aac");
    writeAudio("vell_rec_EMPTY.aac", "");
    auto run = vell("pending --json");
    ASSERT_EQ(run.status, cli::kExitOK) << run.output;
    auto list = nlohmann::json::parse(run.output);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["id"], "4F1C2D3E-0000-4000-8000-00000000ABCD");
    EXPECT_EQ(list[0]["status"], "ready");
    EXPECT_EQ(list[0]["lastError"], "Recovered after an interrupted recording.");
    EXPECT_EQ(list[0]["attempts"], 0);
    EXPECT_EQ(list[0]["file"], (recordings() / "vell_rec_4F1C2D3E-0000-4000-8000-00000000ABCD.aac").string());
    EXPECT_FALSE(list[0].contains("accountID"));
    // The list was saved, so a second run shows the same entry without recovering it again.
    EXPECT_TRUE(fs::exists(recordings() / "manifest.json"));
    auto again = vell("--lang es pending");
    ASSERT_EQ(again.status, cli::kExitOK);
    EXPECT_NE(again.output.find("ESTADO"), std::string::npos) << again.output;
    EXPECT_NE(again.output.find("4F1C2D3E-0000-4000-8000-00000000ABCD  lista"), std::string::npos) << again.output;
    EXPECT_NE(again.output.find("Recovered after an interrupted recording."), std::string::npos);  // stored text stays
}

TEST_F(PendingCommand, CorruptListLosesNoRecording) {
    writeAudio("vell_rec_ONE.aac");
    writeAudio("vell_rec_TWO.m4a");
    const std::string corrupt = R"([{"id":"ONE","fileURL":"file:///x/vell_rec_ONE.aac","startedAt":1,"status":"lost","attempts":0}])";
    std::ofstream(recordings() / "manifest.json") << corrupt;
    auto run = vell("pending --json");
    ASSERT_EQ(run.status, cli::kExitOK) << run.output;
    auto list = nlohmann::json::parse(run.output);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0]["id"], "ONE");
    EXPECT_EQ(list[1]["id"], "TWO");
    for (auto& entry : list) EXPECT_EQ(entry["status"], "ready");
    EXPECT_TRUE(fs::exists(recordings() / "vell_rec_ONE.aac"));
    EXPECT_TRUE(fs::exists(recordings() / "vell_rec_TWO.m4a"));
    bool keptAside = false;
    for (auto& e : fs::directory_iterator(recordings())) {
        if (e.path().filename().string().rfind("manifest.json.corrupt-", 0) == 0) keptAside = true;
    }
    EXPECT_TRUE(keptAside);
}

TEST_F(PendingCommand, EmptyListAndABusyDataFolder) {
    auto run = vell("pending");
    EXPECT_EQ(run.status, cli::kExitOK);
    EXPECT_EQ(run.output, "No pending recordings.\n");

    auto lock = InstanceLock::acquire(home.dataHome() / "Vell");
    ASSERT_TRUE(lock);
    auto busy = test::runCommand(test::binaryPath("vell").string() + " pending 2>&1");
    EXPECT_EQ(busy.status, cli::kExitBusy);
    EXPECT_NE(busy.output.find("Another Vell is already running"), std::string::npos) << busy.output;
}

TEST_F(PendingCommand, RecordingsOpenToOthersAreMadePrivateAtStart) {
    writeAudio("vell_rec_OLD.aac", std::string(100, 'a'));
    fs::permissions(recordings(), fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                      fs::perms::others_read | fs::perms::others_exec);
    fs::permissions(recordings() / "vell_rec_OLD.aac", fs::perms::owner_read | fs::perms::owner_write |
                                                           fs::perms::group_read | fs::perms::others_read);
    ASSERT_EQ(vell("pending").status, 0);
    const auto mode = [](const fs::path& p) { return fs::status(p).permissions() & fs::perms::all; };
    EXPECT_EQ(mode(recordings()), fs::perms::owner_all);
    EXPECT_EQ(mode(recordings() / "vell_rec_OLD.aac"), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(mode(recordings() / "manifest.json"), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(PendingCommand, TheTableSaysLengthSizeAndNoteInTheInterfaceLanguage) {
    writeAudio("vell_rec_A.aac", std::string(3000, 'a'));
    auto spanish = vell("--lang es pending");
    EXPECT_NE(spanish.output.find("DURACIÓN"), std::string::npos) << spanish.output;
    EXPECT_NE(spanish.output.find("NOTA"), std::string::npos) << spanish.output;
    EXPECT_NE(spanish.output.find("lista"), std::string::npos) << spanish.output;
    EXPECT_NE(spanish.output.find("2.9 KiB"), std::string::npos) << spanish.output;
    EXPECT_NE(spanish.output.find("0:00:00"), std::string::npos) << spanish.output;
    auto english = vell("--lang en pending");
    EXPECT_NE(english.output.find("ready"), std::string::npos) << english.output;
    EXPECT_NE(english.output.find("NOTE"), std::string::npos) << english.output;
    EXPECT_EQ(english.output.find(" KB"), std::string::npos) << english.output;
}

}  // namespace
}  // namespace vell
