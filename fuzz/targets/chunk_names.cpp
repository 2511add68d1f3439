// Insurance chunk names as found in the buffer folder (any file name another program left).
// Neither parser may assume a name it did not build.
#include "fuzz_support.h"
#include "insurance/insurance_buffer_store.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vell::insurance::chunk_names;
    std::string name(reinterpret_cast<const char*>(data), size);
    (void)parseOpen(name);
    (void)parseSealed(name);
    return 0;
}
