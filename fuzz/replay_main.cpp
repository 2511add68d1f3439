// Replays files (or every file of folders) through a fuzz target's entry point once, so the
// corpus runs as an ordinary test in builds without libFuzzer. A crash or a sanitizer report
// fails the test; the file being replayed is printed first so the culprit is named.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

int replay(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return 1;
    }
    std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "replaying %s (%zu bytes)\n", file.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        std::filesystem::path arg = argv[i];
        if (std::filesystem::is_directory(arg)) {
            for (const auto& entry : std::filesystem::recursive_directory_iterator(arg))
                if (entry.is_regular_file()) files.push_back(entry.path());
        } else {
            files.push_back(arg);
        }
    }
    std::sort(files.begin(), files.end());
    if (files.empty()) {
        std::fprintf(stderr, "no inputs\n");
        return 1;
    }
    int failures = 0;
    for (const auto& file : files) failures += replay(file);
    std::fprintf(stderr, "%zu inputs replayed\n", files.size());
    return failures == 0 ? 0 : 1;
}
