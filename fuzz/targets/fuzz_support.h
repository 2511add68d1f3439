#pragma once
// Helpers shared by the fuzz targets: a private scratch folder (parsers that only read files
// get the input through one) and the JSON parse every JSON-reading target starts from.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace vell::fuzz {

// One private folder (0700, a fresh name) per process, made on first use in $XDG_RUNTIME_DIR
// (a memory file system, so the repairs' syncs cost nothing), else in the temporary folder;
// left for the system to clean (the files are overwritten every input).
inline const std::filesystem::path& scratch() {
    static const std::filesystem::path dir = [] {
        const char* runtime = std::getenv("XDG_RUNTIME_DIR");
        const auto base = runtime && *runtime == '/' ? std::filesystem::path(runtime) : std::filesystem::temp_directory_path();
        std::string pattern = (base / "vell-fuzz-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) std::abort();
        return std::filesystem::path(pattern);
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
