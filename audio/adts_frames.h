#pragma once
// Walking the frames of an ADTS file (7-byte headers, each naming its frame's length): how
// much of a file is whole frames, and cutting off a frame a full disk or a crash left
// half-written, so that every decoder reads the file to its end. Plain file I/O, no codec.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <system_error>

namespace vell::media {

struct AdtsExtent {
    std::uint64_t wholeBytes = 0;   // bytes from the start up to the end of the last whole frame
    std::uint64_t frames = 0;       // whole frames
    std::uint64_t fileBytes = 0;    // the file's size
    int sampleRate = 0;             // from the first header; 0 without one
    bool startsWithSync = false;    // the file begins like an ADTS frame (or is empty)
    // Audio in the whole frames (1,024 samples each for AAC-LC).
    double seconds() const { return sampleRate > 0 ? double(frames) * 1024.0 / sampleRate : 0.0; }
};

// The length of the leading whole frames in a buffer that begins at a frame boundary.
std::size_t wholeAdtsBytes(const std::uint8_t* data, std::size_t size);

// Reads the file's headers; error set when it cannot be read.
AdtsExtent measureAdtsFile(const std::filesystem::path& path, std::error_code& error);
// Repairs what a crash, a full disk or a damaged sector left: drops the bytes of damaged
// frames, keeping every good frame after them (found again by their sync word and a chain
// of frames), and cuts the file after its last whole frame; returns what is left. A file
// that does not begin with an ADTS sync word is not ours to cut and is left alone, and
// only regular files are touched.
AdtsExtent trimAdtsFile(const std::filesystem::path& path, std::error_code& error);

}  // namespace vell::media
