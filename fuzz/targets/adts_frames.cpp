// The ADTS walker: in memory, then on a file measured and trimmed as recovery does; the trim
// must leave exactly the whole frames the measure counted.
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
    if (!error && measured.startsWithSync && trimmed.fileBytes != measured.wholeBytes) __builtin_trap();
    return 0;
}
