// The desktop program starts light: libavformat (and the score of libraries it drags in) is
// loaded only when an MPEG-4 file is written, never at start-up. (The reference service links
// it: it decodes every transcription's audio.)
#include <gtest/gtest.h>

#include "tests/support/temp_home.h"

namespace vell {
namespace {

TEST(LinkedLibraries, ProgramsDoNotLoadLibavformatAtStart) {
    for (const char* program : {"vell"}) {
        SCOPED_TRACE(program);
        const auto binary = test::binaryPath(program);
        ASSERT_TRUE(std::filesystem::exists(binary)) << binary;
        const auto dynamic = test::runCommand("readelf --dynamic '" + binary.string() + "'");
        ASSERT_EQ(dynamic.status, 0) << dynamic.output;
        ASSERT_NE(dynamic.output.find("(NEEDED)"), std::string::npos) << dynamic.output;
        EXPECT_EQ(dynamic.output.find("libavformat"), std::string::npos) << dynamic.output;
    }
}

}  // namespace
}  // namespace vell
