// The top-level box walk that decides whether a live segment is finished (has its "moov").
#include "fuzz_support.h"
#include "recording/live_segment_writer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto file = vell::fuzz::writeScratch("segment.m4a", data, size);
    (void)vell::recording::hasTopLevelMoov(file);
    return 0;
}
