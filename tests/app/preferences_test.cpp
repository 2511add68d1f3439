#include <gtest/gtest.h>

#include <fstream>

#include "app/app_preferences.h"
#include "app/xdg_autostart_login_item.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/preference_keys.h"
#include "tests/support/temp_home.h"

namespace vell::app {
namespace {

namespace fs = std::filesystem;

class FakeLoginItem final : public LoginItemService {
public:
    LoginItemStatus status() const override { return current; }
    Expected<Unit, std::string> registerItem() override {
        ++registers;
        if (failRegister) return unexpected(std::string("The operation couldn't be completed."));
        current = LoginItemStatus::enabled;
        return Unit{};
    }
    Expected<Unit, std::string> unregisterItem() override {
        current = LoginItemStatus::notRegistered;
        return Unit{};
    }
    LoginItemStatus current = LoginItemStatus::notRegistered;
    bool failRegister = false;
    int registers = 0;
};

struct LogCapture {
    LogCapture() {
        log::setSink([this](log::Level, const std::string&, const std::string& line) { lines.push_back(line); });
    }
    ~LogCapture() { log::setSink({}); }
    std::vector<std::string> lines;
};

TEST(AppPreferences, DockIconDefaultsOnAndEveryChangeIsStoredAndReapplied) {
    test::TempHome home;
    FakeLoginItem item;
    int applied = 0;
    AppPreferences prefs(home.defaults(), item, [&] { ++applied; });
    EXPECT_TRUE(prefs.showsDockIcon.get());
    EXPECT_FALSE(home.defaults().contains(prefs::kShowsDockIcon));
    prefs.setShowsDockIcon(false);
    EXPECT_EQ(applied, 1);
    home.reloadDefaults();
    EXPECT_EQ(home.defaults().boolValue(prefs::kShowsDockIcon), false);
    AppPreferences relaunched(home.defaults(), item);
    EXPECT_FALSE(relaunched.showsDockIcon.get());
}

TEST(AppPreferences, OpenAtLoginDefaultIsAppliedOnceAndRetriedAfterAFailure) {
    test::TempHome home;
    LogCapture log;
    FakeLoginItem item;
    item.failRegister = true;
    {
        AppPreferences first(home.defaults(), item);
        first.applyOpenAtLoginDefault();
        EXPECT_FALSE(first.opensAtLogin.get());
    }
    EXPECT_FALSE(home.defaults().contains(prefs::kOpenAtLoginDefaultApplied));
    EXPECT_EQ(log.lines, std::vector<std::string>{"Vell login item: The operation couldn't be completed."});

    // Next launch: registration works now.
    home.reloadDefaults();
    item.failRegister = false;
    AppPreferences second(home.defaults(), item);
    second.applyOpenAtLoginDefault();
    EXPECT_TRUE(second.opensAtLogin.get());
    EXPECT_EQ(home.defaults().boolValue(prefs::kOpenAtLoginDefaultApplied), true);
    EXPECT_EQ(item.registers, 2);

    // The user turns it off; later launches leave it off.
    second.setOpensAtLogin(false);
    EXPECT_FALSE(second.opensAtLogin.get());
    AppPreferences third(home.defaults(), item);
    third.applyOpenAtLoginDefault();
    EXPECT_FALSE(third.opensAtLogin.get());
    EXPECT_EQ(item.registers, 2);
}

TEST(AppPreferences, AnEarlierStateOtherThanNotRegisteredIsNeverOverridden) {
    for (auto status : {LoginItemStatus::enabled, LoginItemStatus::requiresApproval, LoginItemStatus::notFound}) {
        test::TempHome home;
        FakeLoginItem item;
        item.current = status;
        AppPreferences prefs(home.defaults(), item);
        prefs.applyOpenAtLoginDefault();
        EXPECT_EQ(item.registers, 0);
        EXPECT_EQ(home.defaults().boolValue(prefs::kOpenAtLoginDefaultApplied), true);
        EXPECT_EQ(prefs.opensAtLogin.get(), status == LoginItemStatus::enabled);
        EXPECT_EQ(prefs.loginNeedsApproval.get(), status == LoginItemStatus::requiresApproval);
    }
}

TEST(XdgAutostartLoginItem, EntryStatesFollowTheFileOnDisk) {
    test::TempHome home;
    XdgAutostartLoginItem item(paths::autostartEntry(), "/bin/sh -c true");
    EXPECT_EQ(item.entry(), home.configHome() / "autostart" / "vell.desktop");
    EXPECT_EQ(item.status(), LoginItemStatus::notRegistered);
    ASSERT_TRUE(item.registerItem());
    EXPECT_EQ(item.status(), LoginItemStatus::enabled);

    auto rewrite = [&](const std::string& body) { std::ofstream(item.entry()) << "[Desktop Entry]\nType=Application\n" << body; };
    rewrite("Exec=/bin/sh\nHidden=true\n");  // switched off in the desktop's start-up settings
    EXPECT_EQ(item.status(), LoginItemStatus::notRegistered);
    rewrite("Exec=/bin/sh\nX-GNOME-Autostart-enabled=false\n");
    EXPECT_EQ(item.status(), LoginItemStatus::notRegistered);
    rewrite("Exec=/opt/gone/vell-tray\n");  // the program was moved away
    EXPECT_EQ(item.status(), LoginItemStatus::notFound);
    rewrite("Name=Vell\n");
    EXPECT_EQ(item.status(), LoginItemStatus::notFound);
    rewrite("Exec=sh -c true\n");  // found in PATH
    EXPECT_EQ(item.status(), LoginItemStatus::enabled);

    ASSERT_TRUE(item.unregisterItem());
    EXPECT_EQ(item.status(), LoginItemStatus::notRegistered);
    EXPECT_TRUE(item.unregisterItem());  // nothing to remove is fine
}

TEST(XdgAutostartLoginItem, RegistrationFailureIsLoggedAndTheSwitchShowsTheRealState) {
    test::TempHome home;
    LogCapture log;
    // A file where the autostart folder should be makes registration fail.
    std::ofstream(home.configHome() / "autostart") << "not a folder";
    XdgAutostartLoginItem item(paths::autostartEntry(), "/bin/sh");
    AppPreferences prefs(home.defaults(), item);
    prefs.setOpensAtLogin(true);
    EXPECT_FALSE(prefs.opensAtLogin.get());
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].rfind("Vell login item: cannot create ", 0), 0u) << log.lines[0];
}

}  // namespace
}  // namespace vell::app
