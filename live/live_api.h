#pragma once
// The live-session endpoints of the service as the advisor uses them. Completions run on
// the main executor. The real implementation sits on the API client.
//
//   POST   api/recordings/live              {"sessionId", "recordingId"}  open (idempotent)
//   POST   api/recordings/live/<id>/chunk   the segment (audio/mp4), with "X-Vell-Chunk-Index"
//          (its number), "X-Vell-Chunk-Start-Ms" (where it starts) and "X-Vell-Sides" (levels)
//   GET    api/recordings/live/<id>/tiles   {"tiles": [...], "updatedAt"}
//   POST   api/recordings/live/<id>/close
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/expected.h"
#include "live/side_levels.h"
#include "service/api_client.h"
#include "service/upload_error.h"

namespace vell::live {

// One piece of advice. weight 0...1 sizes its tile; data holds what was measured.
struct Tile {
    std::string id;
    std::string kind;  // talkTime, monologue, questions, silence, or one this version does not know
    double weight = 0;
    long long atMs = 0;
    std::string title;  // the service's own words (used for kinds without a sentence here)
    std::string text;
    nlohmann::json data = nlohmann::json::object();
    long long updatedAt = 0;
    bool operator==(const Tile&) const = default;
};

// {"tiles": [...]}: nothing when the reply is not that (a tile without "id" or "kind" makes
// the whole reply unreadable).
std::optional<std::vector<Tile>> decodeTiles(const service::Json& reply);

nlohmann::json toJson(const Tile& tile);

// The tile's title and sentence in the interface language.
std::string tileTitle(const Tile& tile);
std::string tileText(const Tile& tile);

class LiveApi {
public:
    template <class T>
    using Done = std::function<void(Expected<T, service::UploadError>)>;
    virtual ~LiveApi() = default;
    virtual void open(const std::string& sessionID, const std::string& recordingID, Done<Unit> done) = 0;
    virtual void sendChunk(const std::string& sessionID, int index, long long startMs, const std::filesystem::path& file,
                           const SideLevels& sides, Done<Unit> done) = 0;
    virtual void tiles(const std::string& sessionID, Done<std::vector<Tile>> done) = 0;
    virtual void close(const std::string& sessionID, Done<Unit> done) = 0;
};

class ApiLiveService final : public LiveApi {
public:
    explicit ApiLiveService(const service::APIClient& client) : client_(client) {}
    void open(const std::string& sessionID, const std::string& recordingID, Done<Unit> done) override;
    void sendChunk(const std::string& sessionID, int index, long long startMs, const std::filesystem::path& file,
                   const SideLevels& sides, Done<Unit> done) override;
    void tiles(const std::string& sessionID, Done<std::vector<Tile>> done) override;
    void close(const std::string& sessionID, Done<Unit> done) override;

private:
    const service::APIClient& client_;
};

}  // namespace vell::live
