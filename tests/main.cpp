// Compiled into every test binary: Debian's WebRTC audio-processing library exports a
// stray main() that would otherwise win over gtest_main's at link time.
#include <gtest/gtest.h>
#include "app/composition.h"

int main(int argc, char** argv) {
    vell::app::installPlatformBindings();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
