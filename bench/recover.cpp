// bench_recover [seconds]: how long a user waits for words when recovering a stretch of the
// insurance buffer (default 60 s of spoken English, espeak-ng, 16 kHz mono AAC as the chunks
// hold it). The request goes to the reference service exactly as the application sends it
// (streamed ADTS body, NDJSON answer read as it arrives); measured from the moment the last
// byte of the body was handed to the connection to the first "draft" line and to the final
// line, with the service's own "tookMs" beside them, and each as a share of the audio's length.
#include <httplib.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "bench/process_sample.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

std::string readFile(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

int listeningPort(const fs::path& log) {
    for (int i = 0; i < 100; ++i) {
        const std::string text = readFile(log);
        if (auto at = text.find("listening on http://127.0.0.1:"); at != std::string::npos) {
            return std::atoi(text.c_str() + at + std::string("listening on http://127.0.0.1:").size());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace vell::bench;
    const double seconds = argc > 1 ? std::atof(argv[1]) : 60;
    const fs::path dir = fs::temp_directory_path() / ("bench_recover_" + std::to_string(::getpid()));
    fs::create_directories(dir);
    // Speech of about the asked length: sentences of common words, repeated.
    {
        std::ofstream text(dir / "said.txt");
        const char* sentences[] = {"The weather is nice today and we are going to the park.",
                                   "Please send me the report before the meeting on Friday.",
                                   "I think we should call the customer tomorrow morning and ask about the order."};
        for (int i = 0; i < int(seconds / 4) + 1; ++i) text << sentences[i % 3] << "\n";
    }
    const fs::path audio = dir / "selection.aac";
    if (sh("espeak-ng -v en-us -s 140 -f '" + (dir / "said.txt").string() + "' --stdout | ffmpeg -loglevel error -y -i - -t " +
           std::to_string(seconds) + " -ar 16000 -ac 1 -c:a aac -b:a 32k -f adts '" + audio.string() + "'") != 0) {
        std::fprintf(stderr, "espeak-ng and ffmpeg make the speech\n");
        return 1;
    }
    const std::string body = readFile(audio);

    const fs::path log = dir / "devserver.log";
    const pid_t server = spawn({(fs::path(VELL_BINARY_DIR) / "devserver" / "vell-devserver").string(), "--port", "0", "--data",
                                (dir / "data").string(), "--user", "bench@vell.test:pw"},
                               log);
    const int port = listeningPort(log);
    if (server <= 0 || port == 0) {
        std::fprintf(stderr, "vell-devserver did not start\n%s", readFile(log).c_str());
        return 1;
    }
    httplib::Client client("127.0.0.1", port);
    client.set_read_timeout(600, 0);
    auto login = client.Post("/api/auth/login", nlohmann::json{{"email", "bench@vell.test"}, {"password", "pw"}}.dump(),
                             "application/json");
    std::string cookie;
    if (login) {
        for (const auto& [name, value] : login->headers) {
            if (name == "Set-Cookie" && value.rfind("vell_session=", 0) == 0) cookie = value.substr(0, value.find(';'));
        }
    }
    if (cookie.empty()) {
        std::fprintf(stderr, "sign-in failed\n");
        kill(server, SIGKILL);
        return 1;
    }

    // Twice: the first request also loads the recogniser's model (a cold service).
    for (int round = 0; round < 2; ++round) {
        Clock::time_point bodySent{}, firstDraft{}, finalLine{};
        std::string pending, finalJson;
        httplib::Request req;
        req.method = "POST";
        req.path = "/api/insurance/transcribe";
        req.headers = {{"Cookie", cookie}, {"Accept", "application/x-ndjson"}};
        req.set_header("Content-Type", "audio/aac");
        req.content_length_ = body.size();
        req.content_provider_ = [&](size_t offset, size_t length, httplib::DataSink& sink) {
            const size_t n = std::min<size_t>(length, 64 * 1024);
            sink.write(body.data() + offset, n);
            if (offset + n >= body.size()) bodySent = Clock::now();
            return true;
        };
        req.content_receiver = [&](const char* data, size_t size, uint64_t, uint64_t) {
            pending.append(data, size);
            for (size_t eol; (eol = pending.find('\n')) != std::string::npos;) {
                auto line = nlohmann::json::parse(pending.substr(0, eol), nullptr, false);
                pending.erase(0, eol + 1);
                if (line.is_discarded()) continue;
                if (line.value("stage", "") == "draft" && firstDraft == Clock::time_point{}) firstDraft = Clock::now();
                if (line.value("stage", "") == "final") {
                    finalLine = Clock::now();
                    finalJson = line.dump();
                }
            }
            return true;
        };
        httplib::Response res;
        httplib::Error error;
        if (!client.send(req, res, error) || res.status != 200 || finalJson.empty()) {
            std::fprintf(stderr, "transcription failed (%d)\n", res.status);
            kill(server, SIGKILL);
            return 1;
        }
        const auto final = nlohmann::json::parse(finalJson);
        const double audioS = final.value("durationS", 0.0);
        auto after = [&](Clock::time_point t) { return std::chrono::duration<double>(t - bodySent).count(); };
        const double draftS = firstDraft == Clock::time_point{} ? -1 : after(firstDraft);
        const double finalS = after(finalLine);
        const double serviceS = final.value("tookMs", 0.0) / 1000;
        std::printf("%s service: %.1f s of audio (%zu bytes)\n", round == 0 ? "cold" : "warm", audioS, body.size());
        std::printf("  body sent -> first draft: %7.3f s  (%.3f x the audio)\n", draftS, draftS / audioS);
        std::printf("  body sent -> final text:  %7.3f s  (%.3f x the audio)\n", finalS, finalS / audioS);
        std::printf("  service's own tookMs:     %7.3f s  (%.3f x the audio; from the first byte it received)\n", serviceS,
                    serviceS / audioS);
        const std::string text = final.value("text", "");
        std::printf("  words heard: %zu\n", text.empty() ? size_t(0) : size_t(std::count(text.begin(), text.end(), ' ') + 1));
    }
    kill(server, SIGTERM);
    waitpid(server, nullptr, 0);
    fs::remove_all(dir);
    return 0;
}
