// The desktop program starts light: FFmpeg (and the sixty libraries it drags in) is loaded
// when a recording first encodes, libavformat only when an MPEG-4 file is written. (The
// reference service links them: it decodes every transcription's audio.)
#include <gtest/gtest.h>

#include "tests/support/temp_home.h"

namespace vell {
namespace {

TEST(LinkedLibraries, ProgramsDoNotLoadFfmpegAtStart) {
    for (const char* program : {"vell"}) {
        SCOPED_TRACE(program);
        const auto binary = test::binaryPath(program);
        ASSERT_TRUE(std::filesystem::exists(binary)) << binary;
        const auto dynamic = test::runCommand("readelf --dynamic '" + binary.string() + "'");
        ASSERT_EQ(dynamic.status, 0) << dynamic.output;
        ASSERT_NE(dynamic.output.find("(NEEDED)"), std::string::npos) << dynamic.output;
        for (const char* library : {"libavformat", "libavcodec", "libavutil", "libswresample"}) {
            EXPECT_EQ(dynamic.output.find(library), std::string::npos) << library << "\n" << dynamic.output;
        }
    }
}

}  // namespace
}  // namespace vell
