#pragma once
// Helpers shared by the fuzz targets: a private scratch folder (parsers that only read files
// get the input through one) and the JSON parse every JSON-reading target starts from.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace vell::fuzz {

// One folder per process, made on first use, left for the system to clean (runs are short and
// the files are overwritten every input).
inline const std::filesystem::path& scratch() {
    static const std::filesystem::path dir = [] {
        auto base = std::filesystem::temp_directory_path() / ("vell-fuzz-" + std::to_string(::getpid()));
        std::filesystem::create_directories(base);
        return base;
    }();
    return dir;
}

inline std::filesystem::path writeScratch(const std::string& name, const std::uint8_t* data, std::size_t size) {
    auto path = scratch() / name;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    return path;
}

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// Discarded (not thrown) when the bytes are not JSON, as the decoders' callers do.
inline nlohmann::json parseJson(const std::uint8_t* data, std::size_t size) {
    return nlohmann::json::parse(text(data, size), nullptr, false);
}

}  // namespace vell::fuzz
