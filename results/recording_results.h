#pragma once
// The recording results: what the service made of each uploaded recording, fetched from the
// service and kept on disk (one JSON file per recording under <data>/Vell/Results) so that
// they open offline. After an upload it sends the two sides' levels measured while
// recording, then polls the recording's detail with a capped backoff until the service says
// it is processed (or failed). Front ends use the operations below; each completes on the
// main executor with the result or one sentence in the interface language. Lives on the
// main executor.
//
//   list(done)                 the account's recordings (the service's list, else the copies here)
//   detail(id, done)           one recording, fresh when the service answers, else the copy here
//   renameSpeakers(id, names, done)   {speaker number -> name}; an empty name restores the default
//   share(id, done)            a link to the summary and transcript
//   results                    every result known here, by service id (observable)
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/executor.h"
#include "base/expected.h"
#include "base/published.h"
#include "results/recording_result.h"
#include "service/api_client.h"

namespace vell::results {

// Where a result came from.
struct Fetched {
    RecordingResult result;
    // Set when the service could not be asked and this is the copy kept here: why.
    std::optional<std::string> offlineBecause;
};

struct ResultsSettings {
    double pollBaseSeconds = 2;
    double pollCapSeconds = 60;
};

// The failure sentence means no account is signed in (none was, or its session ended).
bool meansSignedOut(const std::string& sentence);

class RecordingResults {
public:
    template <class T>
    using Done = std::function<void(Expected<T, std::string>)>;

    RecordingResults(const service::APIClient& client, Executor& main, std::filesystem::path directory,
                     ResultsSettings settings = {});
    ~RecordingResults();
    RecordingResults(const RecordingResults&) = delete;
    RecordingResults& operator=(const RecordingResults&) = delete;

    // Every result kept here, by service recording id.
    Published<std::map<std::string, RecordingResult>> results;

    // Signed out, the list is refused (meansSignedOut) rather than shown empty.
    void list(Done<std::vector<Fetched>> done);
    void detail(const std::string& id, Done<Fetched> done);
    void renameSpeakers(const std::string& id, const std::map<int, std::string>& names, Done<RecordingResult> done);
    void share(const std::string& id, Done<std::string> done);

    // A recording reached the service as `recordingID`: its levels (the file beside the
    // audio, when there is one) go to the service, then its detail is polled until it is
    // finished. Nothing happens for a recording whose finished result is kept already.
    void follow(const std::string& recordingID, const std::filesystem::path& audioFile);
    bool following(const std::string& recordingID) const { return polls_.count(recordingID) > 0; }

    std::optional<RecordingResult> kept(const std::string& id) const;

private:
    struct Poll {
        std::filesystem::path sidesFile;
        int attempts = 0;
        TimerHandle timer;
    };
    void keep(const RecordingResult& result);
    void loadKept();
    void pollNow(const std::string& id);
    void scheduleNext(const std::string& id);
    std::filesystem::path fileFor(const std::string& id) const;

    const service::APIClient& client_;
    Executor& main_;
    std::filesystem::path directory_;
    ResultsSettings settings_;
    std::map<std::string, Poll> polls_;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

// Blocking forms for programs without a main loop of their own (the command line works
// in-process through these when no host runs).
Expected<std::vector<RecordingResult>, service::APIError> fetchList(const service::APIClient& client);
Expected<RecordingResult, service::APIError> fetchDetail(const service::APIClient& client, const std::string& id);

}  // namespace vell::results
