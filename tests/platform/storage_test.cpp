#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <limits>

#include "base/clock.h"
#include "base/files.h"
#include "base/instance_lock.h"
#include "base/language.h"
#include "base/paths.h"
#include "base/user_defaults.h"
#include "tests/support/temp_home.h"

namespace vell {
namespace {

namespace fs = std::filesystem;

TEST(Language, FirstSetVariableDecidesAndOnlyItsFirstEntryCounts) {
    auto env = [](std::map<std::string, std::string> vars) {
        return [vars](const char* name) -> const char* {
            auto it = vars.find(name);
            return it == vars.end() ? nullptr : it->second.c_str();
        };
    };
    EXPECT_EQ(chooseLanguage(env({})), Language::English);
    EXPECT_EQ(chooseLanguage(env({{"LANG", "es_AR.UTF-8"}})), Language::Spanish);
    EXPECT_EQ(chooseLanguage(env({{"LANGUAGE", "en_US:es"}, {"LANG", "es_AR.UTF-8"}})), Language::English);
    EXPECT_EQ(chooseLanguage(env({{"LANGUAGE", ""}, {"LC_ALL", "ES_es"}})), Language::Spanish);
    EXPECT_EQ(chooseLanguage(env({{"LC_MESSAGES", "C"}, {"LANG", "es_AR"}})), Language::English);
    EXPECT_EQ(chooseLanguage(env({{"LANG", "est_EE"}})), Language::Spanish);  // begins with "es"
}

TEST(Clock, ReferenceDateAndMillisecondConversions) {
    EXPECT_EQ(fromSecondsSinceReferenceDate(0), wallTimeFromSeconds(978307200));
    EXPECT_DOUBLE_EQ(secondsSinceReferenceDate(wallTimeFromSeconds(978307200.5)), 0.5);
    EXPECT_EQ(millisecondsSince1970(wallTimeFromSeconds(1.0006)), 1001);
    EXPECT_EQ(millisecondsSince1970(wallTimeFromSeconds(1.0004)), 1000);
}

TEST(Files, AtomicWriteReplacesWholeFileAndFailureKeepsTheOld) {
    test::TempHome home;
    auto path = home.root() / "doc.json";
    std::error_code ec;
    ASSERT_TRUE(files::writeAtomically(path, "first", ec));
    ASSERT_TRUE(files::writeAtomically(path, "second", ec));
    EXPECT_EQ(*files::read(path, ec), "second");
    // A directory that refuses new files makes the write fail; the old content survives.
    ::chmod(home.root().c_str(), 0500);
    bool ok = files::writeAtomically(path, "third", ec);
    ::chmod(home.root().c_str(), 0700);
    if (::geteuid() != 0) {  // root ignores directory permissions
        EXPECT_FALSE(ok);
        EXPECT_EQ(*files::read(path, ec), "second");
    }
    int leftovers = 0;
    for (auto& entry : fs::directory_iterator(home.root())) leftovers += entry.path().filename().string().find(".tmp-") != std::string::npos;
    EXPECT_EQ(leftovers, 0);
}

TEST(Files, FileURLsRoundTripAwkwardNames) {
    fs::path p = "/home/ana/Música/vell rec#1%.aac";
    auto url = files::fileURL(p);
    EXPECT_EQ(url.rfind("file:///home/ana/M", 0), 0u);
    EXPECT_EQ(url.find(' '), std::string::npos);
    EXPECT_EQ(*files::pathFromFileURL(url), p);
    EXPECT_EQ(*files::pathFromFileURL("file:///tmp/a"), fs::path("/tmp/a"));
    EXPECT_FALSE(files::pathFromFileURL("https://x/y").has_value());
}

TEST(UserDefaults, ValuesSurviveReloadAndACorruptFileIsKeptAside) {
    test::TempHome home;
    auto& d = home.defaults();
    d.set("a.bool", true);
    d.set("a.int", 42);
    d.set("a.list", std::vector<std::string>{"x", "y"});
    home.reloadDefaults();
    EXPECT_EQ(home.defaults().boolValue("a.bool"), true);
    EXPECT_EQ(home.defaults().integerValue("a.int"), 42);
    EXPECT_EQ(home.defaults().stringList("a.list"), (std::vector<std::string>{"x", "y"}));
    EXPECT_FALSE(home.defaults().stringValue("a.int").has_value());  // wrong type reads as absent
    // Numbers a hand-edited file may hold that no integer can: the nearest one.
    std::ofstream(home.defaults().file()) << R"({"huge": 8.4e48, "tiny": -1e300, "big": 18446744073709551615})";
    home.reloadDefaults();
    EXPECT_EQ(home.defaults().integerValue("huge"), std::numeric_limits<long long>::max());
    EXPECT_EQ(home.defaults().integerValue("tiny"), std::numeric_limits<long long>::min());
    EXPECT_EQ(home.defaults().integerValue("big"), std::numeric_limits<long long>::max());

    auto file = home.defaults().file();
    std::ofstream(file) << "{ not json";
    home.reloadDefaults();
    EXPECT_FALSE(home.defaults().contains("a.bool"));
    int aside = 0;
    for (auto& e : fs::directory_iterator(file.parent_path())) aside += e.path().filename().string().find("corrupt") != std::string::npos;
    EXPECT_EQ(aside, 1);
}

TEST(InstanceLock, SecondHolderIsRefusedUntilTheFirstReleases) {
    test::TempHome home;
    auto first = InstanceLock::acquire(paths::vellDataDirectory());
    ASSERT_TRUE(first.has_value());
    // flock locks belong to the open file description, so a second open in this process
    // conflicts just as another process would.
    auto second = InstanceLock::acquire(paths::vellDataDirectory());
    ASSERT_FALSE(second.has_value());
    EXPECT_TRUE(second.error().busy);
    EXPECT_NE(second.error().sentence.find("already running"), std::string::npos);
    first = InstanceLock::acquire(home.root());  // drop the first lock
    EXPECT_TRUE(InstanceLock::acquire(paths::vellDataDirectory()).has_value());
}

}  // namespace
}  // namespace vell
