#pragma once
// Synthetic speech (espeak-ng and sox) at the fake microphone's format: 16 kHz mono, 16-bit;
// empty when they are missing.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace vell::test {

inline std::vector<int16_t> speech(const std::filesystem::path& dir, const std::string& words) {
    const auto raw = dir / "speech.s16";
    const std::string command = "espeak-ng -v en -s 140 --stdout \"" + words +
                                "\" | sox -q -R -t wav - -t raw -r 16000 -e signed -b 16 -c 1 " + raw.string() + " norm -3";
    if (std::system(command.c_str()) != 0) return {};
    std::ifstream in(raw, std::ios::binary);
    std::vector<int16_t> samples;
    int16_t v;
    while (in.read(reinterpret_cast<char*>(&v), sizeof v)) samples.push_back(v);
    return samples;
}

}  // namespace vell::test
