#pragma once
// Sizes and lengths as the commands print them.
#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <string>

namespace vell::cli {

// In the units a person reads: B, KiB, MiB, GiB.
inline std::string bytesText(double bytes) {
    if (bytes < 1024) return fmt::format("{:.0f} B", bytes);
    if (bytes < 1024 * 1024) return fmt::format("{:.1f} KiB", bytes / 1024);
    if (bytes < 1024.0 * 1024 * 1024) return fmt::format("{:.1f} MiB", bytes / (1024 * 1024));
    return fmt::format("{:.2f} GiB", bytes / (1024.0 * 1024 * 1024));
}

// Seconds between a pending entry's start and finish (its JSON form); 0 while unfinished.
inline double lengthOf(const nlohmann::json& entry) {
    // The audio the file holds, when the host measured it at the stop; else the wall time.
    if (entry.is_object() && entry.contains("savedSeconds") && entry["savedSeconds"].is_number()) {
        return entry["savedSeconds"].get<double>();
    }
    if (!entry.is_object() || !entry.contains("finishedAt") || !entry["finishedAt"].is_number()) return 0;
    const double finished = entry["finishedAt"].get<double>();
    return finished - (entry.contains("startedAt") && entry["startedAt"].is_number() ? entry["startedAt"].get<double>() : finished);
}

}  // namespace vell::cli
