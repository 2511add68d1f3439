#pragma once
// The rolling buffer of insurance mode on disk: one folder of ADTS AAC chunks whose file
// names carry each chunk's span and speech activity. The listing and the names are the whole
// truth (no index, no memory), so a crash or a restart never leaves it inconsistent.
// Takes no lock: callers are the writer's queue (open, seal), the recorder's prune on the
// main executor and readers that list and concatenate; the rename is what makes it safe.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/expected.h"

namespace vell::insurance {

struct InsuranceChunk {
    std::filesystem::path url;
    WallTime start;
    WallTime end;
    std::optional<int> activityPercent;  // absent while the chunk is being written
    std::int64_t bytes = 0;
    bool isOpen = false;
    bool operator==(const InsuranceChunk&) const = default;
};

// Names: "open_<startMs>.aac" while written, "ins_<startMs>_<endMs>_<activity>.aac" sealed.
namespace chunk_names {
std::string openName(WallTime start);
std::string sealedName(WallTime start, WallTime end, int activityPercent);
std::optional<std::int64_t> parseOpen(const std::string& name);  // start ms
struct Sealed {
    std::int64_t startMs = 0, endMs = 0;
    std::int64_t activity = 0;
};
std::optional<Sealed> parseSealed(const std::string& name);
}  // namespace chunk_names

class InsuranceBufferStore {
public:
    explicit InsuranceBufferStore(std::filesystem::path directory);
    // The folder below the user's data directory, computed once per process.
    static std::filesystem::path defaultDirectory();

    const std::filesystem::path& directory() const { return directory_; }

    // Creates the folder if needed; does not create the file.
    std::filesystem::path openChunkURL(WallTime start) const;
    // Renames an open chunk to its sealed name; nothing (file left as it is) when the name
    // does not parse or the rename fails. Activity is clamped to 0...100 and an end not later
    // than the start becomes the start.
    std::optional<std::filesystem::path> seal(const std::filesystem::path& openURL, WallTime end,
                                              int activityPercent) const;
    // Oldest first.
    std::vector<InsuranceChunk> chunks() const;
    // Chunks overlapping (from, to) strictly and holding at least one byte.
    std::vector<InsuranceChunk> chunks(WallTime from, WallTime to) const;
    std::int64_t totalBytes() const;
    // Drops everything older than the window, foreign and left-over open files, chunks
    // stamped more than a minute in the future, then the oldest chunks until the folder
    // holds at most maxBytes; never touches `keep`.
    void prune(WallTime now, double windowSeconds, const std::optional<std::filesystem::path>& keep,
               std::int64_t maxBytes) const;
    // The chunks' bytes, in the given order, into one file: a file the user named is replaced;
    // a `fresh` one (Vell's own temporary files) is created new, never through a link.
    enum class Creation { replace, fresh };
    Expected<Unit, std::string> concatenate(const std::vector<InsuranceChunk>& chunks, const std::filesystem::path& destination,
                                            Creation creation = Creation::replace) const;
    void removeAll() const;

private:
    std::filesystem::path directory_;
};

}  // namespace vell::insurance
