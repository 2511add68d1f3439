// The tray's tests run their widgets in one QApplication, off screen unless told otherwise.
#include <gtest/gtest.h>

#include <QApplication>

#include <cstdlib>

#include "app/composition.h"
#include "tests/support/child_process.h"

int main(int argc, char** argv) {
    ::setenv(vell::test::kSuiteMarker, VELL_BINARY_DIR, 1);  // see tests/main.cpp
    // Off screen on a 4K screen: the windows at twice the font size must fit as they would
    // on a desktop scaled to 200 %, not on the plugin's 800x600 default.
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen:configfile=" VELL_SOURCE_DIR "/tests/tray/offscreen-screen.json");
    }
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    vell::app::installPlatformBindings();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
