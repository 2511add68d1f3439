// The tray's tests run their widgets in one QApplication, off screen unless told otherwise.
#include <gtest/gtest.h>

#include <QApplication>

#include "app/composition.h"

int main(int argc, char** argv) {
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    vell::app::installPlatformBindings();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
