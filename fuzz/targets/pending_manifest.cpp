// The pending list as read back from disk: whole-list decode, the salvage of readable
// entries, and a round trip of whatever either gave (what is written back must read back
// whole, entry for entry); nesting of any depth must neither crash nor be written back.
#include "fuzz_support.h"
#include "recording/pending_recording_coding.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vell::recording;
    auto input = vell::fuzz::text(data, size);
    if (auto list = coding::decodeList(input)) {
        auto again = coding::decodeList(coding::encodeList(*list));
        if (!again || again->size() != list->size()) __builtin_trap();
    }
    if (auto entries = coding::decodeReadableEntries(input)) {
        auto again = coding::decodeList(coding::encodeList(*entries));
        if (!again || again->size() != entries->size()) __builtin_trap();
        for (std::size_t i = 0; i < entries->size(); ++i)
            if ((*again)[i].id != (*entries)[i].id || (*again)[i].status != (*entries)[i].status) __builtin_trap();
    }
    return 0;
}
