// Session storage: the private file, the Secret Service behind a fault-injecting stand-in,
// and the real gnome-keyring in a private session bus.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>

#include "base/files.h"
#include "base/log.h"
#include "platform/secrets/secret_store.h"
#include "session/session_file_store.h"
#include "tests/support/temp_home.h"

namespace vell::session {
namespace {

namespace fs = std::filesystem;

// Secret Service stand-in whose answers the test decides.
class FakeSecrets final : public secret::Store {
public:
    bool isReachable = true;
    int failStoreWith = 0;
    int failLookupWith = 0;
    int calls = 0;
    std::map<std::string, std::string> items;
    bool reachable() override {
        ++calls;
        return isReachable;
    }
    Expected<std::optional<std::string>, secret::Error> lookup(const std::string& account) override {
        ++calls;
        if (failLookupWith) return unexpected(secret::Error{failLookupWith, "lookup refused"});
        auto it = items.find(account);
        if (it == items.end()) return std::optional<std::string>{};
        return std::optional<std::string>{it->second};
    }
    Expected<Unit, secret::Error> store(const std::string& account, const std::string& bytes) override {
        ++calls;
        if (failStoreWith) return unexpected(secret::Error{failStoreWith, "store refused"});
        items[account] = bytes;
        return Unit{};
    }
    Expected<Unit, secret::Error> clear(const std::string& account) override {
        ++calls;
        items.erase(account);
        return Unit{};
    }
};

struct SessionStoreTest : ::testing::Test {
    test::TempHome home;
    FakeSecrets secrets;
    std::mutex logMutex;
    std::vector<std::string> errors, infos;

    void SetUp() override {
        SessionFileStore::resetForTesting(&secrets);
        log::setSink([this](log::Level level, const std::string& category, const std::string& message) {
            if (category != "Keychain") return;
            std::lock_guard lock(logMutex);
            (level == log::Level::Error ? errors : infos).push_back(message);
        });
    }
    void TearDown() override {
        log::setSink(nullptr);
        SessionFileStore::resetForTesting(nullptr);
    }
    fs::path file() const { return SessionFileStore::filePath("cookies.v1"); }
    mode_t mode(const fs::path& p) const {
        struct stat st {};
        ::stat(p.c_str(), &st);
        return st.st_mode & 07777;
    }
};

TEST_F(SessionStoreTest, FileKindWritesReadsAndDeletesAPrivateFileWithoutTouchingSecrets) {
    secrets.isReachable = false;
    EXPECT_EQ(SessionFileStore::kind(), StorageKind::file);
    int callsAfterDecision = secrets.calls;
    EXPECT_EQ(file(), home.dataHome() / "Vell" / "session-cookies.v1.bin");
    EXPECT_FALSE(SessionFileStore::read("cookies.v1"));
    std::string blob("bplist00\0\x01\xff", 11);
    SessionFileStore::write("cookies.v1", blob);
    EXPECT_EQ(mode(file()), 0600u);
    EXPECT_EQ(SessionFileStore::read("cookies.v1"), blob);
    SessionFileStore::remove("cookies.v1");
    EXPECT_FALSE(fs::exists(file()));
    EXPECT_FALSE(SessionFileStore::read("cookies.v1"));
    EXPECT_EQ(secrets.calls, callsAfterDecision);
    EXPECT_TRUE(errors.empty()) << errors.front();
    // A key cannot name a file outside the data folder.
    SessionFileStore::write("../escape", "x");
    EXPECT_FALSE(fs::exists(home.dataHome() / "escape.bin"));
}

TEST_F(SessionStoreTest, SymlinkIsRefusedAndWiderPermissionsAreNarrowed) {
    fs::create_directories(file().parent_path());
    fs::path target = home.root() / "elsewhere";
    std::ofstream(target) << "keep";
    fs::create_symlink(target, file());
    auto refused = SessionFileStore::writeFile(file(), "secret");
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().operation, "open");
    EXPECT_EQ(refused.error().code, ELOOP);
    std::error_code ec;
    EXPECT_EQ(files::read(target, ec), "keep");

    // Through the public write the failure is logged, not thrown.
    secrets.isReachable = false;
    SessionFileStore::write("cookies.v1", "secret");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("session file write failed: open failed", 0), 0u) << errors[0];

    fs::remove(file());
    std::ofstream(file()) << "old";
    ::chmod(file().c_str(), 0644);
    EXPECT_TRUE(SessionFileStore::writeFile(file(), "new"));
    EXPECT_EQ(mode(file()), 0600u);
    EXPECT_EQ(files::read(file(), ec), "new");

    fs::remove(file());
    fs::create_directory(file());
    auto notRegular = SessionFileStore::writeFile(file(), "x");
    ASSERT_FALSE(notRegular);
    EXPECT_EQ(notRegular.error().operation, "open");  // a directory cannot be opened for writing
}

TEST_F(SessionStoreTest, BlobOnlyInTheFileMovesIntoTheSecretService) {
    fs::create_directories(file().parent_path());
    ASSERT_TRUE(SessionFileStore::writeFile(file(), "from-file"));
    EXPECT_EQ(SessionFileStore::kind(), StorageKind::secretService);
    EXPECT_EQ(SessionFileStore::read("cookies.v1"), "from-file");
    EXPECT_EQ(secrets.items["cookies.v1"], "from-file");
    EXPECT_FALSE(fs::exists(file()));
    EXPECT_EQ(infos.back(), "session file migrated into the secret service");
    EXPECT_EQ(SessionFileStore::read("cookies.v1"), "from-file");
}

TEST_F(SessionStoreTest, FailedMigrationKeepsTheFileAndSecretServiceFailuresFallBackToIt) {
    fs::create_directories(file().parent_path());
    ASSERT_TRUE(SessionFileStore::writeFile(file(), "from-file"));
    secrets.failStoreWith = 2;
    EXPECT_EQ(SessionFileStore::read("cookies.v1"), "from-file");
    EXPECT_TRUE(fs::exists(file()));
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors.back(), "session file migration failed: 2");

    SessionFileStore::write("cookies.v1", "newer");
    EXPECT_EQ(errors.back(), "keychain write failed: 2");
    std::error_code ec;
    EXPECT_EQ(files::read(file(), ec), "newer");

    secrets.failStoreWith = 0;
    secrets.failLookupWith = 5;
    EXPECT_EQ(SessionFileStore::read("cookies.v1"), "newer");
    EXPECT_EQ(errors.back(), "keychain read failed: 5");
    EXPECT_FALSE(fs::exists(file()));  // moved on the way

    SessionFileStore::remove("cookies.v1");
    EXPECT_TRUE(secrets.items.empty());
}

// The real Secret Service: the test re-runs itself inside a private session bus with an
// unlocked gnome-keyring.
TEST(SessionStoreKeyring, MigratesIntoGnomeKeyring) {
    if (!std::getenv("VELL_PRIVATE_KEYRING")) {
        if (std::system("command -v dbus-run-session >/dev/null && command -v gnome-keyring-daemon >/dev/null") != 0) {
            GTEST_SKIP() << "dbus-run-session or gnome-keyring-daemon is not installed";
        }
        char self[4096] = {};
        ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
        ASSERT_GT(n, 0);
        std::string command = std::string("dbus-run-session -- sh -c 'printf pw | gnome-keyring-daemon --unlock "
                                          "--components=secrets >/dev/null 2>&1; VELL_PRIVATE_KEYRING=1 exec \"") +
                              self + "\" --gtest_filter=SessionStoreKeyring.MigratesIntoGnomeKeyring' 2>&1";
        auto result = test::runCommand(command);
        if (result.output.find("NO_KEYRING") != std::string::npos) {
            GTEST_SKIP() << "gnome-keyring did not offer a collection here:\n" << result.output;
        }
        EXPECT_EQ(result.status, 0) << result.output;
        return;
    }
    test::TempHome home;
    SessionFileStore::resetForTesting(nullptr);
    if (!secret::systemStore().reachable()) {
        std::printf("NO_KEYRING\n");
        GTEST_SKIP() << "NO_KEYRING";
    }
    ASSERT_EQ(SessionFileStore::kind(), StorageKind::secretService);
    fs::path file = SessionFileStore::filePath("cookies.v1");
    fs::create_directories(file.parent_path());
    std::string blob("bplist00\0binary\xff", 16);
    ASSERT_TRUE(SessionFileStore::writeFile(file, blob));
    EXPECT_EQ(SessionFileStore::read("cookies.v1"), blob);
    EXPECT_FALSE(fs::exists(file));
    auto stored = secret::systemStore().lookup("cookies.v1");
    ASSERT_TRUE(stored);
    EXPECT_EQ(*stored, blob);
    SessionFileStore::write("cookies.v1", "replaced");
    EXPECT_EQ(SessionFileStore::read("cookies.v1"), "replaced");
    EXPECT_FALSE(fs::exists(file));
    SessionFileStore::remove("cookies.v1");
    EXPECT_FALSE(SessionFileStore::read("cookies.v1"));
}

}  // namespace
}  // namespace vell::session
