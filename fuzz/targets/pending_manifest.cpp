// The pending list as read back from disk: whole-list decode, the salvage of readable
// entries, and a round trip of whatever decoded (encode must accept anything decode made).
#include "fuzz_support.h"
#include "recording/pending_recording_coding.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vell::recording;
    auto input = vell::fuzz::text(data, size);
    if (auto list = coding::decodeList(input)) {
        auto again = coding::decodeList(coding::encodeList(*list));
        if (!again || again->size() != list->size()) __builtin_trap();
    }
    if (auto entries = coding::decodeReadableEntries(input)) (void)coding::encodeList(*entries);
    return 0;
}
