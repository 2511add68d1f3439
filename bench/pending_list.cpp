// Save and load of a 10,000-entry pending list (goal: 30 ms each), beside a peer measured
// in the same run: the same document built, dumped and parsed with plain nlohmann-json
// and the same atomic write, read and file checks, without our coding.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <vector>

#include "app/composition.h"
#include "base/files.h"
#include "recording/pending_list.h"
#include "recording/pending_recording_coding.h"

namespace fs = std::filesystem;
using namespace vell;
using namespace vell::recording;

namespace {

constexpr int kEntries = 10'000;
constexpr int kRounds = 15;

double medianMs(const std::function<void()>& work) {
    std::vector<double> times;
    for (int i = 0; i < kRounds; ++i) {
        auto start = std::chrono::steady_clock::now();
        work();
        times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

std::vector<PendingRecording> makeList(const fs::path& dir) {
    std::vector<PendingRecording> list;
    for (int i = 0; i < kEntries; ++i) {
        PendingRecording r;
        char id[40];
        std::snprintf(id, sizeof id, "4F1C2D3E-0000-4000-8000-%012d", i);
        r.id = id;
        r.fileURL = dir / ("vell_rec_" + r.id + ".aac");
        r.startedAt = fromSecondsSinceReferenceDate(817'000'000.25 + i);
        r.finishedAt = fromSecondsSinceReferenceDate(817'003'600.5 + i);
        r.status = i % 3 == 0 ? PendingRecording::Status::failed : PendingRecording::Status::ready;
        if (i % 3 == 0) {
            r.lastError = "The Internet connection appears to be offline.";
            r.lastErrorIsNetwork = true;
        }
        r.attempts = i % 5;
        r.accountID = "acct-42";
        list.push_back(std::move(r));
    }
    return list;
}

}  // namespace

int main() {
    vell::app::installPlatformBindings();
    fs::path root = fs::temp_directory_path() / ("vell-bench-pending-" + std::to_string(::getpid()));
    fs::path ours = root / "ours";
    fs::path peer = root / "peer";
    fs::create_directories(ours);
    fs::create_directories(peer);
    auto list = makeList(ours);
    for (const auto& r : list) std::ofstream(r.fileURL) << "a";  // load checks every file exists

    // The peer's document: the same values, ready-made, in a plain json array.
    nlohmann::json peerDoc = nlohmann::json::array();
    for (const auto& r : list) {
        nlohmann::json o;
        o["id"] = r.id;
        o["fileURL"] = "file://" + r.fileURL.string();
        o["startedAt"] = secondsSinceReferenceDate(r.startedAt);
        o["finishedAt"] = secondsSinceReferenceDate(*r.finishedAt);
        o["status"] = toString(r.status);
        if (r.lastError) o["lastError"] = *r.lastError;
        o["attempts"] = r.attempts;
        if (r.lastErrorIsNetwork) o["lastErrorIsNetwork"] = *r.lastErrorIsNetwork;
        o["accountID"] = *r.accountID;
        peerDoc.push_back(std::move(o));
    }

    PendingListFile file(ours);
    std::error_code ec;
    double saveOurs = medianMs([&] {
        if (!file.save(list, ec)) std::abort();
    });
    double savePeer = medianMs([&] {
        if (!files::writeAtomically(peer / "manifest.json", peerDoc.dump(), ec)) std::abort();
    });
    size_t loaded = 0;
    double loadOurs = medianMs([&] { loaded = file.load().value().size(); });
    size_t peerLoaded = 0;
    double loadPeer = medianMs([&] {
        auto text = files::read(peer / "manifest.json", ec).value();
        auto doc = nlohmann::json::parse(text);
        peerLoaded = 0;
        for (const auto& o : doc) {
            std::error_code e;
            if (fs::exists(o["fileURL"].get_ref<const std::string&>().substr(7), e)) ++peerLoaded;
        }
    });
    if (loaded != list.size() || peerLoaded != list.size()) std::abort();

    // The coding alone, in memory: where the two differ.
    std::string text;
    double encodeOurs = medianMs([&] { text = coding::encodeList(list); });
    std::string peerText;
    double encodePeer = medianMs([&] { peerText = peerDoc.dump(); });
    double decodeOurs = medianMs([&] { loaded = coding::decodeList(text).value().size(); });
    double decodePeer = medianMs([&] { peerLoaded = nlohmann::json::parse(peerText).size(); });
    double filterOurs = medianMs([&] { loaded = keepingExistingFiles(list).size(); });
    if (loaded != list.size() || peerLoaded != list.size()) std::abort();

    auto size = fs::file_size(file.manifest());
    std::printf("pending list, %d entries, manifest %.1f KiB, median of %d rounds\n", kEntries, size / 1024.0, kRounds);
    std::printf("  save: vell %.2f ms   peer (nlohmann dump + atomic write) %.2f ms   ratio %.2f   goal 30 ms\n", saveOurs,
                savePeer, saveOurs / savePeer);
    std::printf("  load: vell %.2f ms   peer (read + nlohmann parse + exists) %.2f ms   ratio %.2f   goal 30 ms\n", loadOurs,
                loadPeer, loadOurs / loadPeer);
    std::printf("  encode only: vell %.2f ms   nlohmann dump %.2f ms   ratio %.2f\n", encodeOurs, encodePeer,
                encodeOurs / encodePeer);
    std::printf("  decode only: vell %.2f ms   nlohmann parse %.2f ms   ratio %.2f\n", decodeOurs, decodePeer,
                decodeOurs / decodePeer);
    std::printf("  missing-file filter: %.2f ms\n", filterOurs);
    fs::remove_all(root, ec);
    return 0;
}
