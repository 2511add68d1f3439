// The ADTS walker: in memory, then on a file measured and repaired as recovery does; the
// repair must never grow the file, leave whole frames only, and find nothing left to repair
// the second time.
#include "audio/adts_frames.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vell::media;
    auto whole = wholeAdtsBytes(data, size);
    if (whole > size) __builtin_trap();
    auto file = vell::fuzz::writeScratch("chunk.aac", data, size);
    std::error_code error;
    auto measured = measureAdtsFile(file, error);
    if (error) return 0;
    if (measured.wholeBytes > measured.fileBytes) __builtin_trap();
    (void)measured.seconds();
    auto trimmed = trimAdtsFile(file, error);
    if (error || !measured.startsWithSync) return 0;
    if (trimmed.fileBytes > measured.fileBytes) __builtin_trap();
    auto again = measureAdtsFile(file, error);
    if (error || again.wholeBytes != again.fileBytes || again.frames != trimmed.frames) __builtin_trap();
    auto twice = trimAdtsFile(file, error);
    if (error || twice.fileBytes != again.fileBytes) __builtin_trap();
    return 0;
}
