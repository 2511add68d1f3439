// defaults.json as the store loads it at launch, then read back through every accessor and
// written once (a value set over an odd document must still save).
#include "base/user_defaults.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto file = vell::fuzz::writeScratch("defaults.json", data, size);
    vell::UserDefaults defaults(file);
    for (const char* key : {"calendarSources", "language", "insuranceEnabled", "", "a"}) {
        (void)defaults.boolValue(key);
        (void)defaults.integerValue(key);
        (void)defaults.stringValue(key);
        (void)defaults.stringList(key);
        (void)defaults.dictionary(key);
        (void)defaults.contains(key);
    }
    defaults.set("fuzzed", true);
    return 0;
}
