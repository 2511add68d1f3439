// Compiled into every test binary: Debian's WebRTC audio-processing library exports a
// stray main() that would otherwise win over gtest_main's at link time.
#include <gtest/gtest.h>
#include <cstdlib>

#include "app/composition.h"
#include "tests/support/child_process.h"

int main(int argc, char** argv) {
    // Every program a test starts inherits the marker; the suite's last test looks for it.
    ::setenv(vell::test::kSuiteMarker, VELL_BINARY_DIR, 1);
    vell::app::installPlatformBindings();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
