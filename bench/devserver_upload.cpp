// Uploads one large file to vell-devserver through the resumable endpoints, in 8 MiB parts
// and in one PUT, and prints the server's peak resident memory (VmHWM) and the throughput
// beside `curl -T` of the same file to the same endpoint in the same run. Each way gets a
// fresh server, so each peak is its own.
//
//   bench_devserver_upload [MiB]     (default 1024)
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <curl/curl.h>
#include <httplib.h>
#include <nlohmann/json.hpp>
#include "app/composition.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr int64_t kPart = 8 << 20;

struct Server {
    pid_t pid = -1;
    int port = 0;
    fs::path data;

    explicit Server(const fs::path& root) : data(root / "data") {
        int out[2];
        if (::pipe(out) != 0) std::exit(1);
        pid = ::fork();
        if (pid == 0) {
            ::dup2(out[1], 1);
            int null = ::open("/dev/null", O_WRONLY);
            ::dup2(null, 2);
            const std::string binary = std::string(VELL_BINARY_DIR) + "/devserver/vell-devserver";
            ::execl(binary.c_str(), binary.c_str(), "--port", "0", "--data", data.c_str(), "--admin-token", "t",
                    static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(out[1]);
        std::string line;
        char c;
        while (::read(out[0], &c, 1) == 1 && c != '\n') line.push_back(c);
        ::close(out[0]);
        auto colon = line.rfind(':');
        if (colon == std::string::npos) {
            std::fprintf(stderr, "vell-devserver did not start\n");
            std::exit(1);
        }
        port = std::stoi(line.substr(colon + 1));
    }
    ~Server() {
        ::kill(pid, SIGTERM);
        ::waitpid(pid, nullptr, 0);
        std::error_code ignored;
        fs::remove_all(data, ignored);
    }
    long peakRssKiB() const {
        std::ifstream in("/proc/" + std::to_string(pid) + "/status");
        std::string key;
        while (in >> key) {
            if (key == "VmHWM:") {
                long v = 0;
                in >> v;
                return v;
            }
        }
        return -1;
    }
    httplib::Client client() const {
        httplib::Client c("127.0.0.1", port);
        c.set_read_timeout(600, 0);
        c.set_write_timeout(600, 0);
        return c;
    }
};

struct Session {
    std::string cookie;
    std::string uploadId;
};

Session startUpload(const Server& server, int64_t total) {
    auto client = server.client();
    auto login = client.Post("/api/auth/login", R"({"email":"demo@vell.local","password":"vell-demo"})", "application/json");
    std::string setCookie = login ? login->get_header_value("Set-Cookie") : "";
    Session s;
    s.cookie = setCookie.substr(0, setCookie.find(';'));
    httplib::Headers headers = {{"Cookie", s.cookie}, {"X-Vell-Idempotency-Key", "bench.aac"}};
    auto start = client.Post("/api/recordings/upload/start", headers,
                             json{{"mimeType", "audio/aac"}, {"filename", "bench.aac"}, {"totalBytes", total}}.dump(),
                             "application/json");
    if (!start || start->status != 200) {
        std::fprintf(stderr, "start failed\n");
        std::exit(1);
    }
    s.uploadId = json::parse(start->body)["uploadId"];
    return s;
}

std::string finalizeAndDigest(const Server& server, const Session& s) {
    auto client = server.client();
    auto done = client.Post(("/api/recordings/upload/" + s.uploadId + "/finalize").c_str(), {{"Cookie", s.cookie}}, "",
                            "application/json");
    if (!done || done->status != 200) return "finalize failed";
    auto list = client.Get("/admin/recordings", {{"X-Admin-Token", "t"}});
    return json::parse(list->body)[0]["sha256"];
}

double seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

std::string sha256sum(const fs::path& file) {
    std::string out;
    FILE* pipe = ::popen(("sha256sum '" + file.string() + "'").c_str(), "r");
    char buffer[128];
    if (pipe && std::fgets(buffer, sizeof buffer, pipe)) out = std::string(buffer).substr(0, 64);
    if (pipe) ::pclose(pipe);
    return out;
}

struct PartBody {
    const char* data;
    size_t left;
    static size_t read(char* out, size_t size, size_t count, void* self) {
        auto* body = static_cast<PartBody*>(self);
        const size_t n = std::min(size * count, body->left);
        std::memcpy(out, body->data, n);
        body->data += n;
        body->left -= n;
        return n;
    }
};

size_t appendAnswer(char* data, size_t size, size_t count, void* answer) {
    static_cast<std::string*>(answer)->append(data, size * count);
    return size * count;
}

struct Figures {
    const char* name;
    double mibPerSecond;
    long peakKiB;
    bool identical;
};

}  // namespace

int main(int argc, char** argv) {
    vell::app::installPlatformBindings();
    const int64_t mib = argc > 1 ? std::stoll(argv[1]) : 1024;
    const int64_t total = mib << 20;
    char pattern[] = "/tmp/bench-devserver-XXXXXX";
    const fs::path root = ::mkdtemp(pattern);
    const fs::path file = root / "source.bin";
    {
        std::ofstream out(file, std::ios::binary);
        std::mt19937_64 rng(7);
        std::vector<uint64_t> block(1 << 17);  // 1 MiB
        for (int64_t i = 0; i < mib; ++i) {
            for (auto& v : block) v = rng();
            out.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(block.size() * 8));
        }
    }
    const std::string expected = sha256sum(file);
    std::vector<Figures> rows;

    {  // 8 MiB parts through libcurl, as the desktop client sends them (one connection,
       // no "Expect: 100-continue").
        Server server(root / "parts");
        Session s = startUpload(server, total);
        std::ifstream in(file, std::ios::binary);
        std::string chunk(kPart, '\0');
        CURL* curl = curl_easy_init();
        const auto t0 = std::chrono::steady_clock::now();
        for (int64_t offset = 0; offset < total;) {
            const int64_t length = std::min(kPart, total - offset);
            in.seekg(offset);
            in.read(chunk.data(), length);
            PartBody body{chunk.data(), static_cast<size_t>(length)};
            std::string answer;
            curl_slist* headers = nullptr;
            headers = curl_slist_append(headers, ("Cookie: " + s.cookie).c_str());
            headers = curl_slist_append(headers, ("X-Upload-Offset: " + std::to_string(offset)).c_str());
            headers = curl_slist_append(headers, "Content-Type: audio/aac");
            headers = curl_slist_append(headers, "Expect:");
            const std::string url = "http://127.0.0.1:" + std::to_string(server.port) + "/api/recordings/upload/" + s.uploadId + "/part";
            curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
            curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
            curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
            curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(length));
            curl_easy_setopt(curl, CURLOPT_READFUNCTION, &PartBody::read);
            curl_easy_setopt(curl, CURLOPT_READDATA, &body);
            curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &appendAnswer);
            curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
            long status = 0;
            const CURLcode code = curl_easy_perform(curl);
            curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
            curl_slist_free_all(headers);
            if (code != CURLE_OK || status != 200) {
                std::fprintf(stderr, "part at %lld failed\n", static_cast<long long>(offset));
                return 1;
            }
            offset = json::parse(answer)["bytesReceived"];
        }
        const double elapsed = seconds(t0);
        curl_easy_cleanup(curl);
        rows.push_back({"resumable, 8 MiB parts", mib / elapsed, server.peakRssKiB(), finalizeAndDigest(server, s) == expected});
    }
    {  // One PUT of the whole file, streamed from disk by the client.
        Server server(root / "single");
        Session s = startUpload(server, total);
        auto client = server.client();
        std::ifstream in(file, std::ios::binary);
        std::vector<char> buffer(1 << 20);
        const auto t0 = std::chrono::steady_clock::now();
        auto reply = client.Put(
            ("/api/recordings/upload/" + s.uploadId + "/part").c_str(), {{"Cookie", s.cookie}, {"X-Upload-Offset", "0"}},
            static_cast<size_t>(total),
            [&](size_t offset, size_t length, httplib::DataSink& sink) {
                in.seekg(static_cast<std::streamoff>(offset));
                in.read(buffer.data(), static_cast<std::streamsize>(std::min(length, buffer.size())));
                return sink.write(buffer.data(), static_cast<size_t>(in.gcount()));
            },
            "audio/aac");
        const double elapsed = seconds(t0);
        if (!reply || reply->status != 200) {
            std::fprintf(stderr, "single PUT failed\n");
            return 1;
        }
        rows.push_back({"resumable, one PUT", mib / elapsed, server.peakRssKiB(), finalizeAndDigest(server, s) == expected});
    }
    {  // The peer: curl -T of the same file to the same endpoint.
        Server server(root / "curl");
        Session s = startUpload(server, total);
        const std::string command = "curl -sS -o /dev/null -w '%{http_code}' -T '" + file.string() + "' -H 'Cookie: " +
                                    s.cookie + "' -H 'X-Upload-Offset: 0' 'http://127.0.0.1:" + std::to_string(server.port) +
                                    "/api/recordings/upload/" + s.uploadId + "/part'";
        const auto t0 = std::chrono::steady_clock::now();
        FILE* pipe = ::popen(command.c_str(), "r");
        char status[8] = {};
        if (pipe) {
            if (!std::fgets(status, sizeof status, pipe)) status[0] = 0;
            ::pclose(pipe);
        }
        const double elapsed = seconds(t0);
        rows.push_back({"curl -T (peer)", mib / elapsed, server.peakRssKiB(), finalizeAndDigest(server, s) == expected});
    }
    const Figures& peer = rows.back();
    std::printf("vell-devserver upload of %lld MiB\n", static_cast<long long>(mib));
    std::printf("%-24s %12s %12s %12s %10s\n", "way", "MiB/s", "ratio", "peak RSS", "sha256");
    for (const auto& r : rows) {
        std::printf("%-24s %12.1f %11.2fx %9.1f MiB %10s\n", r.name, r.mibPerSecond, r.mibPerSecond / peer.mibPerSecond,
                    r.peakKiB / 1024.0, r.identical ? "identical" : "DIFFERS");
    }
    std::error_code ignored;
    fs::remove_all(root, ignored);
    bool ok = true;
    for (const auto& r : rows) ok = ok && r.identical && r.peakKiB < 64 * 1024;
    return ok ? 0 : 1;
}
