#pragma once
// ADTS files for tests that only need well-formed frame headers (the reference service
// reads the frames' lengths and rates, not the sound).
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

namespace vell::insurance::testing {

// `frames` frames of `frameBytes` bytes each at 16 kHz mono (64 ms per frame).
inline std::string adtsFrames(int frames, int frameBytes = 100) {
    std::string out;
    for (int i = 0; i < frames; ++i) {
        const unsigned length = static_cast<unsigned>(frameBytes);
        unsigned char header[7] = {0xFF, 0xF1, static_cast<unsigned char>((1 << 6) | (8 << 2)),
                                   static_cast<unsigned char>((1 << 6) | ((length >> 11) & 0x03)),
                                   static_cast<unsigned char>((length >> 3) & 0xFF),
                                   static_cast<unsigned char>(((length & 0x07) << 5) | 0x1F), 0xFC};
        out.append(reinterpret_cast<const char*>(header), sizeof header);
        out.append(static_cast<size_t>(frameBytes) - sizeof header, '\0');
    }
    return out;
}

inline void writeFile(const std::filesystem::path& file, const std::string& bytes) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << bytes;
}

}  // namespace vell::insurance::testing
