// The tray icon goes to the panel by its installed theme name when the theme has it, and
// as drawn pictures when Vell is not installed.
#include <gtest/gtest.h>

#include <QFile>
#include <QIcon>
#include <QPalette>
#include <filesystem>

#include "tests/support/temp_home.h"
#include "tray/icons.h"

namespace vell::tray {
namespace {

TEST(TrayIcon, NamedAfterTheInstalledStatusIconsWhenTheThemeHasThem) {
    const QStringList searchPaths = QIcon::themeSearchPaths();
    const QString themeBefore = QIcon::themeName();
    test::TempHome home;
    const auto theme = home.tmp() / "icons" / "hicolor";
    std::filesystem::create_directories(theme / "scalable" / "status");
    QFile index(QString::fromStdString((theme / "index.theme").string()));
    ASSERT_TRUE(index.open(QIODevice::WriteOnly));
    index.write("[Icon Theme]\nName=Hicolor\nDirectories=scalable/status\n\n"
                "[scalable/status]\nSize=64\nMinSize=8\nMaxSize=512\nType=Scalable\nContext=Status\n");
    index.close();
    QIcon::setThemeSearchPaths({QString::fromStdString((home.tmp() / "icons").string())});
    QIcon::setThemeName("hicolor");

    // Only the idle icon is "installed" here: the others fall back to drawn pictures.
    std::filesystem::copy_file(std::filesystem::path(VELL_SOURCE_DIR) / "data/icons/status/vell-idle.svg",
                               theme / "scalable" / "status" / "vell-idle.svg");
    const auto idle = trayIcon(IconState::idle, QPalette());
    EXPECT_EQ(idle.name().toStdString(), "vell-idle");
    const auto recording = trayIcon(IconState::recording, QPalette());
    EXPECT_TRUE(recording.name().isEmpty()) << recording.name().toStdString();
    EXPECT_FALSE(recording.pixmap(22, 22).isNull());
    for (auto state : {IconState::idle, IconState::recording, IconState::insurance, IconState::uploadTrouble}) {
        EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(VELL_SOURCE_DIR) / "data/icons/status" /
                                            (themeName(state).toStdString() + ".svg")))
            << themeName(state).toStdString() << " is not an installed icon";
    }
    QIcon::setThemeSearchPaths(searchPaths);
    QIcon::setThemeName(themeBefore);
}

}  // namespace
}  // namespace vell::tray
