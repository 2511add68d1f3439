// One Vell icon per session: a second front end hands its windows to the first one and
// ends; a socket left by a front end that died does not stop the next one.
#include <gtest/gtest.h>

#include <QFile>
#include <QLocalServer>
#include <filesystem>

#include "tests/support/temp_home.h"
#include "tests/tray/tray_rig.h"
#include "tray/front_end_claim.h"

namespace vell::tray {
namespace {

TEST(FrontEndClaim, ASecondFrontEndHandsItsWindowToTheFirstAndEnds) {
    vell::test::TempHome home;
    const QByteArray runtimeBefore = qgetenv("XDG_RUNTIME_DIR");
    const auto runtime = home.root() / "run";
    std::filesystem::create_directories(runtime);
    qputenv("XDG_RUNTIME_DIR", QByteArray::fromStdString(runtime.string()));

    QStringList opened;
    bool handedOver = true;
    auto first = FrontEndClaim::claim({}, [&](const QString& window) { opened << window; }, &handedOver);
    ASSERT_NE(first, nullptr);
    EXPECT_FALSE(handedOver);
    // Only this user may connect.
    EXPECT_EQ(std::filesystem::status(runtime / "vell-tray").permissions() & std::filesystem::perms::others_all,
              std::filesystem::perms::none);

    auto second = FrontEndClaim::claim({"settings"}, [](const QString&) { ADD_FAILURE() << "the second one opens nothing"; },
                                       &handedOver);
    EXPECT_EQ(second, nullptr);
    EXPECT_TRUE(handedOver);
    ASSERT_TRUE(test::waitFor([&] { return opened.size() == 1; }, 5000));
    EXPECT_EQ(opened.front(), "settings");

    // The first one died without closing its socket: the next start is the front end.
    first.reset();
    QFile stale(QString::fromStdString((runtime / "vell-tray").string()));
    ASSERT_TRUE(stale.open(QIODevice::WriteOnly));
    stale.close();
    auto next = FrontEndClaim::claim({}, [](const QString&) {}, &handedOver);
    EXPECT_NE(next, nullptr);
    EXPECT_FALSE(handedOver);

    if (runtimeBefore.isEmpty()) qunsetenv("XDG_RUNTIME_DIR");
    else qputenv("XDG_RUNTIME_DIR", runtimeBefore);
}

}  // namespace
}  // namespace vell::tray
