// Resumable upload of a recording to the reference service (8 MiB parts, each acknowledged
// after the service synced it), beside `curl -T` sending the same file in one PUT and curl
// sending the same 8 MiB parts one after another, in the same run, on two links:
//  - loopback, where the per-part wait for the service's sync dominates: goal at least
//    0.95x curl sending the same parts, with our peak RSS under 48 MiB;
//  - a shaped link on this machine (100 Mbit/s, 30 ms round trip: a network namespace
//    limited by tc tbf, and a delaying proxy), as users upload: goal at least 0.9x one
//    curl PUT. Skipped with a note when not root or iproute2 is missing.
//   bench_upload [MiB on loopback, default 1024] [rounds, default 2] [MiB on the shaped
//   link, default 128; 0 skips it]
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "app/composition.h"
#include "base/log.h"
#include "bench/net/shaped_link.h"
#include "platform/http/plist_cookies.h"
#include "platform/secrets/secret_store.h"
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
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);  // gone with the bench, however it ends
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

// A whole upload with curl -T for the parts, as ours does it: the start (by our client, as
// curl cannot carry the upload id over), then one transfer per part and the finalize, all
// in one curl process on one connection. Returns seconds and curl's peak RSS (KiB, from GNU
// time), or a negative time on failure.
std::pair<double, long> curlUpload(const service::APIClient& client, const std::string& cookie,
                                   const std::vector<std::pair<fs::path, long long>>& parts, const std::string& key,
                                   long long size) {
    auto t0 = std::chrono::steady_clock::now();
    auto started = client.send({.method = "POST",
                                .path = "api/recordings/upload/start",
                                .json = service::Json{{"mimeType", "audio/aac"}, {"filename", key}, {"totalBytes", size}},
                                .headers = {{"X-Vell-Idempotency-Key", key}}});
    if (!started) return {-1, 0};
    std::string upload = client.apiBaseURL() + "api/recordings/upload/" + (*started)["uploadId"].get<std::string>();
    fs::path rss = fs::temp_directory_path() / "bench-upload-curl-rss";
    std::string command = "/usr/bin/time -f %M -o '" + rss.string() + "' curl -sS";
    // --next starts each transfer afresh: every one names all its options.
    const std::string common = " --noproxy '*' -o /dev/null -w '%{http_code}\\n' -H 'Cookie: " + cookie + "'";
    for (const auto& [file, offset] : parts) {
        command += common + " -T '" + file.string() + "' -H 'Expect:' -H 'Content-Type: audio/aac' -H 'X-Upload-Offset: " +
                   std::to_string(offset) + "' '" + upload + "/part' --next";
    }
    command += common + " -X POST -d '' '" + upload + "/finalize'";
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
    for (size_t i = 0; i <= parts.size(); ++i) expected += "200\n";
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

// A signed-in client for the service at url and its session cookie for curl.
struct SignedIn {
    std::unique_ptr<service::APIClient> client;
    std::string cookie;
};

std::optional<SignedIn> signIn(const std::string& url) {
    SignedIn out{std::make_unique<service::APIClient>(url), {}};
    service::AccountClient account(*out.client);
    if (!account.signInNow("bench@vell.test", "pw")) return std::nullopt;
    // The session cookie for curl, from the snapshot our client stores.
    out.client->saveSession();
    if (auto blob = session::SessionFileStore::read(service::kCookieSnapshotKey)) {
        for (const auto& c : plist::decodeCookies(*blob).value_or(std::vector<http::Cookie>{})) {
            if (c.name == service::kSessionCookieName) out.cookie = c.name + "=" + c.value;
        }
    }
    return out;
}

// Best seconds of each of the three uploads over `rounds` rounds.
struct Best {
    double ours = 1e9, curl = 1e9, curlParts = 1e9;
    long curlRSS = 0;
};

std::optional<Best> measure(const SignedIn& link, const std::string& label, const fs::path& file, long long size,
                            const std::vector<std::pair<fs::path, long long>>& parts, int rounds) {
    Best best;
    service::RecordingUploads uploads(*link.client);
    for (int round = 0; round < rounds; ++round) {
        // Each upload needs a new idempotency key (file name) or the service answers "done".
        const std::string key = label + "-" + std::to_string(round);
        fs::path copy = file.parent_path() / ("vell_rec_bench_" + key + ".aac");
        fs::create_hard_link(file, copy);
        auto [curlSeconds, kib] = curlUpload(*link.client, link.cookie, {{copy, 0}}, "curl-" + key + ".aac", size);
        auto [partsSeconds, partsKib] = curlUpload(*link.client, link.cookie, parts, "curl-parts-" + key + ".aac", size);
        if (curlSeconds < 0 || partsSeconds < 0) {
            std::fprintf(stderr, "bench_upload: curl upload failed (%s)\n", label.c_str());
            return std::nullopt;
        }
        // Ours after the peers, so that any writeback they leave behind counts against us.
        auto t0 = std::chrono::steady_clock::now();
        // When each part was acknowledged: where our time goes.
        std::vector<double> marks;
        auto id = uploads.uploadRecording(copy, std::nullopt, std::nullopt, [&](double) { marks.push_back(seconds(t0)); });
        double ours = seconds(t0);
        fs::remove(copy);
        if (!id) {
            std::fprintf(stderr, "bench_upload: our upload failed (%s): %s\n", label.c_str(),
                         id.error().description(Language::English).c_str());
            return std::nullopt;
        }
        best.ours = std::min(best.ours, ours);
        best.curl = std::min(best.curl, curlSeconds);
        best.curlParts = std::min(best.curlParts, partsSeconds);
        best.curlRSS = std::max({best.curlRSS, kib, partsKib});
        std::vector<double> partMs;
        for (size_t i = 1; i < marks.size(); ++i) partMs.push_back((marks[i] - marks[i - 1]) * 1000);
        std::sort(partMs.begin(), partMs.end());
        std::printf("%s round %d: ours %.2f s, curl one PUT %.2f s, curl 8 MiB parts %.2f s\n", label.c_str(), round + 1,
                    ours, curlSeconds, partsSeconds);
        if (!partMs.empty()) {
            std::printf("  ours: start %.3f s, %zu parts %.3f s (median %.0f ms, slowest %.0f ms), finalize %.3f s\n",
                        marks.front(), partMs.size(), marks.back() - marks.front(), partMs[partMs.size() / 2],
                        partMs.back(), ours - marks.back());
        }
        std::fflush(stdout);
    }
    return best;
}

void printThroughput(const Best& best, long long mib) {
    double mibs = static_cast<double>(mib);
    std::printf("  vell resumable (8 MiB parts): %8.1f MiB/s\n", mibs / best.ours);
    std::printf("  curl -T (one PUT):            %8.1f MiB/s   peak RSS %6.1f MiB\n", mibs / best.curl,
                best.curlRSS / 1024.0);
    std::printf("  curl -T (same 8 MiB parts):   %8.1f MiB/s\n", mibs / best.curlParts);
}

// The first `bytes` of the upload file as 8 MiB part files, for the peer that follows the
// same protocol.
std::vector<std::pair<fs::path, long long>> splitParts(const fs::path& file, long long bytes, const fs::path& dir) {
    std::vector<std::pair<fs::path, long long>> parts;
    std::vector<char> buffer(service::kUploadChunkBytes);
    FILE* in = std::fopen(file.c_str(), "rb");
    for (long long offset = 0; offset < bytes; offset += service::kUploadChunkBytes) {
        size_t want = static_cast<size_t>(std::min<long long>(bytes - offset, service::kUploadChunkBytes));
        size_t n = std::fread(buffer.data(), 1, want, in);
        fs::path part = dir / ("part-" + std::to_string(offset));
        FILE* out = std::fopen(part.c_str(), "wb");
        std::fwrite(buffer.data(), 1, n, out);
        std::fclose(out);
        parts.emplace_back(part, offset);
    }
    std::fclose(in);
    return parts;
}

}  // namespace

int main(int argc, char** argv) {
    vell::app::installPlatformBindings();
    long long mib = argc > 1 ? std::atoll(argv[1]) : 1024;
    int rounds = argc > 2 ? std::atoi(argv[2]) : 2;
    long long shapedMib = argc > 3 ? std::atoll(argv[3]) : 128;
    const long long size = mib * 1024 * 1024, shapedSize = shapedMib * 1024 * 1024;
    const bench::LinkShape shape;  // 100 Mbit/s, 30 ms
    log::setMinimumLevel(log::Level::Error);

    fs::path work = fs::path(VELL_BINARY_DIR) / "bench-upload";
    fs::remove_all(work);
    fs::create_directories(work / "home");
    fs::create_directories(work / "shaped");
    ::setenv("XDG_DATA_HOME", (work / "home").c_str(), 1);
    NoSecrets noKeyring;  // never touch the desktop's keyring
    session::SessionFileStore::resetForTesting(&noKeyring);

    Server server;
    if (!startServer(server, work / "server")) {
        std::fprintf(stderr, "bench_upload: vell-devserver did not start (build it first)\n");
        return 1;
    }
    fs::path file = work / "vell_rec_bench.aac";
    makeFile(file, std::max(size, shapedSize));
    auto partFiles = splitParts(file, size, work);
    auto shapedParts = splitParts(file, shapedSize, work / "shaped");
    fs::path shapedFile = work / "shaped" / "vell_rec_bench.aac";
    if (shapedSize > 0) makeFile(shapedFile, shapedSize);  // the same bytes: same seed
    if (size < shapedSize) fs::resize_file(file, static_cast<uintmax_t>(size));
    long baselineRSS = peakRSSKiB();

    auto loopback = signIn(server.url);
    if (!loopback) {
        std::fprintf(stderr, "bench_upload: sign-in failed\n");
        return 1;
    }
    // Let the writeback of the fresh files finish so that it does not compete with the
    // service's syncs during whichever upload runs first.
    ::sync();

    auto local = measure(*loopback, "loopback", file, size, partFiles, rounds);
    if (!local) return 1;
    long oursRSS = peakRSSKiB();

    std::optional<Best> shaped;
    std::string shapedNote;
    if (shapedSize > 0) {
        const std::string port = server.url.substr(server.url.rfind(':') + 1);
        std::string whyNot;
        auto link = bench::ShapedLink::open(static_cast<uint16_t>(std::stoi(port)), shape, whyNot);
        if (!link) {
            shapedNote = "shaped link skipped: " + whyNot;
        } else if (auto through = signIn(link->url())) {
            shaped = measure(*through, "shaped", shapedFile, shapedSize, shapedParts, rounds);
            if (!shaped) return 1;
        } else {
            std::fprintf(stderr, "bench_upload: sign-in through the shaped link failed %s\n", link->failure().c_str());
            return 1;
        }
    } else {
        shapedNote = "shaped link skipped (0 MiB asked)";
    }

    std::printf("upload of %lld MiB over loopback (best of %d)\n", mib, rounds);
    printThroughput(*local, mib);
    std::printf("  vell peak RSS %.1f MiB (%.1f MiB before the upload)\n", oursRSS / 1024.0, baselineRSS / 1024.0);
    std::printf("  ratio vell/curl same parts: %.2f (goal >= 0.95); vell/curl one PUT: %.2f; RSS %s 48 MiB\n",
                local->curlParts / local->ours, local->curl / local->ours, oursRSS / 1024.0 < 48 ? "under" : "OVER");
    if (shaped) {
        const double rtt = std::chrono::duration<double>(shape.roundTrip).count();
        // The link idles one round trip per part while the acknowledgement comes back.
        const double partSeconds = static_cast<double>(service::kUploadChunkBytes) / (shape.megabitsPerSecond * 1e6 / 8);
        const double measuredPart = static_cast<double>(service::kUploadChunkBytes) / (shapedSize / shaped->curl);
        std::printf("upload of %lld MiB over %g Mbit/s with %.0f ms round trip (best of %d)\n", shapedMib,
                    shape.megabitsPerSecond, rtt * 1000, rounds);
        printThroughput(*shaped, shapedMib);
        std::printf("  ratio vell/curl one PUT: %.2f (goal >= 0.90; ceiling with one round trip per part %.3f, "
                    "%.3f at curl's rate); vell/curl same parts: %.2f\n",
                    shaped->curl / shaped->ours, partSeconds / (partSeconds + rtt), measuredPart / (measuredPart + rtt),
                    shaped->curlParts / shaped->ours);
    } else {
        std::printf("%s\n", shapedNote.c_str());
    }
    fs::remove_all(work);
    return 0;
}
