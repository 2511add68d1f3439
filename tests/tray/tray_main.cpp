// The tray's tests run their widgets in one QApplication, off screen unless told otherwise.
#include <gtest/gtest.h>

#include <QApplication>

#include <cstdlib>

#include "app/composition.h"
#include "tests/support/child_process.h"

int main(int argc, char** argv) {
    ::setenv(vell::test::kSuiteMarker, VELL_BINARY_DIR, 1);  // see tests/main.cpp
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    vell::app::installPlatformBindings();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
