// Resumable upload of a 1 GiB recording to the reference service (8 MiB parts, each
// acknowledged after the service synced it), beside `curl -T` sending the same file to the
// same server in one PUT, and sending the same 8 MiB parts on one connection, in the same
// run. Prints throughput and peak memory of each; the goal is at least 0.9x curl's
// throughput with our peak RSS under 48 MiB.
//   bench_upload [size in MiB, default 1024] [rounds, default 2]
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "platform/log.h"
#include "platform/plist_cookies.h"
#include "platform/secret_store.h"
#include "service/account_client.h"
#include "service/resumable_upload.h"
#include "session/session_file_store.h"

namespace fs = std::filesystem;
using namespace vell;

namespace {

struct Server {
    pid_t pid = -1;
    std::string url;
    ~Server() {
        if (pid > 0) {
            ::kill(pid, SIGTERM);
            ::waitpid(pid, nullptr, 0);
        }
    }
};

bool startServer(Server& server, const fs::path& data) {
    std::string binary = std::string(VELL_BINARY_DIR) + "/devserver/vell-devserver";
    int out[2];
    if (::pipe(out) != 0) return false;
    server.pid = ::fork();
    if (server.pid == 0) {
        ::dup2(out[1], 1);
        int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 2);
        ::execl(binary.c_str(), binary.c_str(), "--port", "0", "--data", data.c_str(), "--user", "bench@vell.test:pw",
                nullptr);
        _exit(127);
    }
    ::close(out[1]);
    std::string seen;
    std::smatch m;
    std::regex line(R"(listening on (http://127\.0\.0\.1:\d+/))");
    while (!std::regex_search(seen, m, line)) {
        pollfd p{out[0], POLLIN, 0};
        if (::poll(&p, 1, 20'000) <= 0) break;
        char buf[256];
        ssize_t n = ::read(out[0], buf, sizeof buf);
        if (n <= 0) break;
        seen.append(buf, static_cast<size_t>(n));
    }
    ::close(out[0]);
    if (m.empty()) return false;
    server.url = m[1];
    return true;
}

void makeFile(const fs::path& path, long long bytes) {
    FILE* f = std::fopen(path.c_str(), "wb");
    std::mt19937_64 random(42);
    std::vector<uint64_t> block(1 << 17);  // 1 MiB
    for (long long done = 0; done < bytes;) {
        for (auto& w : block) w = random();
        long long n = std::min<long long>(bytes - done, static_cast<long long>(block.size() * 8));
        std::fwrite(block.data(), 1, static_cast<size_t>(n), f);
        done += n;
    }
    std::fclose(f);
}

double seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

long peakRSSKiB() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// curl -T of a fresh upload, one transfer per part (all on one connection, one curl
// process); returns seconds and curl's peak RSS (KiB, from GNU time), or a negative time
// on failure.
std::pair<double, long> curlUpload(const service::APIClient& client, const std::string& cookie,
                                   const std::vector<std::pair<fs::path, long long>>& parts, const std::string& key,
                                   long long size) {
    auto started = client.send({.method = "POST",
                                .path = "api/recordings/upload/start",
                                .json = service::Json{{"mimeType", "audio/aac"}, {"filename", key}, {"totalBytes", size}},
                                .headers = {{"X-Vell-Idempotency-Key", key}}});
    if (!started) return {-1, 0};
    std::string url = client.apiBaseURL() + "api/recordings/upload/" + (*started)["uploadId"].get<std::string>() + "/part";
    fs::path rss = fs::temp_directory_path() / "bench-upload-curl-rss";
    std::string command = "/usr/bin/time -f %M -o '" + rss.string() + "' curl -sS";
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) command += " --next";
        command += " -o /dev/null -w '%{http_code}\\n' -T '" + parts[i].first.string() +
                   "' -H 'Expect:' -H 'Content-Type: audio/aac' -H 'X-Upload-Offset: " + std::to_string(parts[i].second) +
                   "' -H 'Cookie: " + cookie + "' '" + url + "'";
    }
    auto t0 = std::chrono::steady_clock::now();
    FILE* pipe = ::popen(command.c_str(), "r");
    std::string codes;
    char buf[4096];
    size_t got;
    while ((got = std::fread(buf, 1, sizeof buf, pipe)) > 0) codes.append(buf, got);
    ::pclose(pipe);
    double elapsed = seconds(t0);
    long kib = 0;
    if (FILE* f = std::fopen(rss.c_str(), "r")) {
        if (std::fscanf(f, "%ld", &kib) != 1) kib = 0;
        std::fclose(f);
    }
    std::string expected;
    for (size_t i = 0; i < parts.size(); ++i) expected += "200\n";
    if (codes != expected) {
        std::fprintf(stderr, "curl answers: %s\n", codes.c_str());
        return {-1, kib};
    }
    return {elapsed, kib};
}

class NoSecrets final : public secret::Store {
public:
    bool reachable() override { return false; }
    Expected<std::optional<std::string>, secret::Error> lookup(const std::string&) override { return std::optional<std::string>{}; }
    Expected<Unit, secret::Error> store(const std::string&, const std::string&) override { return Unit{}; }
    Expected<Unit, secret::Error> clear(const std::string&) override { return Unit{}; }
};

}  // namespace

int main(int argc, char** argv) {
    long long mib = argc > 1 ? std::atoll(argv[1]) : 1024;
    int rounds = argc > 2 ? std::atoi(argv[2]) : 2;
    long long size = mib * 1024 * 1024;
    log::setMinimumLevel(log::Level::Error);

    fs::path work = fs::path(VELL_BINARY_DIR) / "bench-upload";
    fs::remove_all(work);
    fs::create_directories(work / "home");
    ::setenv("XDG_DATA_HOME", (work / "home").c_str(), 1);
    NoSecrets noKeyring;  // never touch the desktop's keyring
    session::SessionFileStore::resetForTesting(&noKeyring);

    Server server;
    if (!startServer(server, work / "server")) {
        std::fprintf(stderr, "bench_upload: vell-devserver did not start (build it first)\n");
        return 1;
    }
    fs::path file = work / "vell_rec_bench.aac";
    makeFile(file, size);
    long baselineRSS = peakRSSKiB();

    service::APIClient client(server.url);
    service::AccountClient account(client);
    if (!account.signInNow("bench@vell.test", "pw")) {
        std::fprintf(stderr, "bench_upload: sign-in failed\n");
        return 1;
    }
    // The session cookie for curl, from the snapshot our client stores.
    client.saveSession();
    std::string cookie;
    if (auto blob = session::SessionFileStore::read(service::kCookieSnapshotKey)) {
        for (const auto& c : plist::decodeCookies(*blob).value_or(std::vector<http::Cookie>{})) {
            if (c.name == service::kSessionCookieName) cookie = c.name + "=" + c.value;
        }
    }

    // The same file as 8 MiB part files, for the peer that follows the same protocol.
    std::vector<std::pair<fs::path, long long>> partFiles;
    {
        std::vector<char> buffer(service::kUploadChunkBytes);
        FILE* in = std::fopen(file.c_str(), "rb");
        for (long long offset = 0; offset < size; offset += service::kUploadChunkBytes) {
            size_t n = std::fread(buffer.data(), 1, buffer.size(), in);
            fs::path part = work / ("part-" + std::to_string(offset));
            FILE* out = std::fopen(part.c_str(), "wb");
            std::fwrite(buffer.data(), 1, n, out);
            std::fclose(out);
            partFiles.emplace_back(part, offset);
        }
        std::fclose(in);
    }

    // Let the writeback of the fresh files finish so that it does not compete with the
    // service's syncs during whichever upload runs first.
    ::sync();

    double bestOurs = 1e9, bestCurl = 1e9, bestCurlParts = 1e9;
    long curlRSS = 0;
    service::RecordingUploads uploads(client);
    for (int round = 0; round < rounds; ++round) {
        // Each upload needs a new idempotency key (file name) or the service answers "done".
        fs::path copy = work / ("vell_rec_bench_" + std::to_string(round) + ".aac");
        fs::rename(round == 0 ? file : work / ("vell_rec_bench_" + std::to_string(round - 1) + ".aac"), copy);
        auto [curlSeconds, kib] = curlUpload(client, cookie, {{copy, 0}}, "curl-" + std::to_string(round) + ".aac", size);
        auto [partsSeconds, partsKib] =
            curlUpload(client, cookie, partFiles, "curl-parts-" + std::to_string(round) + ".aac", size);
        if (curlSeconds < 0 || partsSeconds < 0) {
            std::fprintf(stderr, "bench_upload: curl upload failed\n");
            return 1;
        }
        // Ours after the peers, so that any writeback they leave behind counts against us.
        auto t0 = std::chrono::steady_clock::now();
        auto id = uploads.uploadRecording(copy, std::nullopt, std::nullopt, {});
        double ours = seconds(t0);
        if (!id) {
            std::fprintf(stderr, "bench_upload: our upload failed: %s\n", id.error().description(Language::English).c_str());
            return 1;
        }
        bestOurs = std::min(bestOurs, ours);
        bestCurl = std::min(bestCurl, curlSeconds);
        bestCurlParts = std::min(bestCurlParts, partsSeconds);
        curlRSS = std::max({curlRSS, kib, partsKib});
        std::printf("round %d: ours %.2f s, curl one PUT %.2f s, curl 8 MiB parts %.2f s\n", round + 1, ours, curlSeconds,
                    partsSeconds);
    }
    double mibs = static_cast<double>(mib);
    long oursRSS = peakRSSKiB();
    std::printf("upload of %lld MiB (best of %d)\n", mib, rounds);
    std::printf("  vell resumable (8 MiB parts): %8.1f MiB/s   peak RSS %6.1f MiB (%.1f MiB before the upload)\n",
                mibs / bestOurs, oursRSS / 1024.0, baselineRSS / 1024.0);
    std::printf("  curl -T (one PUT):            %8.1f MiB/s   peak RSS %6.1f MiB\n", mibs / bestCurl, curlRSS / 1024.0);
    std::printf("  curl -T (same 8 MiB parts):   %8.1f MiB/s\n", mibs / bestCurlParts);
    std::printf("  throughput ratio vell/curl one PUT: %.2f (goal >= 0.90); vell/curl same parts: %.2f; RSS %s 48 MiB\n",
                bestCurl / bestOurs, bestCurlParts / bestOurs, oursRSS / 1024.0 < 48 ? "under" : "OVER");
    fs::remove_all(work);
    return 0;
}
