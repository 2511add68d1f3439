// Agent requests for buffered audio as a state machine on an injected clock: a scripted
// service (poll and report), real chunk files joined by the real store, the real upload
// queue over a pending list in memory with a scripted uploader.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>

#include "base/manual_executor.h"
#include "base/runtime.h"
#include "insurance/buffered_audio_upload.h"
#include "insurance/insurance_agent_requests.h"
#include "insurance/insurance_messages.h"
#include "service/upload_queue.h"
#include "tests/insurance/adts_fixture.h"
#include "tests/support/memory_pending_store.h"
#include "tests/support/temp_home.h"

namespace vell::insurance {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using service::APIError;
using service::UploadError;

WallTime at(double seconds) { return WallTime{std::chrono::milliseconds(static_cast<long long>(seconds * 1000))}; }
double ms(double seconds) { return seconds * 1000; }

// Sends nothing: each upload waits until the test finishes it.
class ScriptedUploader final : public service::RecordingUploader {
public:
    struct Call {
        recording::PendingRecording recording;
        std::string bytes;
        Done done;
    };
    std::vector<Call> calls;
    void upload(const recording::PendingRecording& r, std::function<void(double)>, Done done) override {
        std::ifstream in(r.fileURL, std::ios::binary);
        calls.push_back({r, std::string(std::istreambuf_iterator<char>(in), {}), std::move(done)});
    }
};

class AgentRequests : public ::testing::Test {
protected:
    test::TempHome home;
    ManualClock clock{at(10'000)};
    ManualExecutor main{clock};
    InsuranceBufferStore store{home.dataHome() / "buffer"};
    test::MemoryPendingStore pending;
    ScriptedUploader uploader;
    std::unique_ptr<service::UploadQueue> queue;
    std::unique_ptr<BufferedAudioUpload> upload;
    std::unique_ptr<InsuranceAgentRequests> agent;
    fs::path recordings = home.dataHome() / "Recordings";

    bool enabled = true;
    bool signedIn = true;
    std::vector<std::string> events;  // "seal", "chunks", "poll", "report"
    std::vector<std::function<void(Expected<std::optional<AgentRequest>, APIError>)>> polls;
    std::vector<std::pair<json, std::function<void(Expected<Unit, APIError>)>>> reports;

    void SetUp() override {
        setInterfaceLanguage(Language::English);
        runtime::install(&main, &clock);
        service::UploadQueueSettings settings;
        settings.receiptsFile = home.dataHome() / "receipts.json";
        queue = std::make_unique<service::UploadQueue>(pending, uploader, main, clock, [] { return 1.0; }, settings);
        queue->setAccount("acc_1");
        queue->start();
        BufferedUploadParts u;
        u.concatenate = [this](const std::vector<InsuranceChunk>& c, const fs::path& to) {
            events.push_back("join");
            return store.concatenate(c, to);
        };
        u.pending = &pending;
        u.uploads = queue.get();
        u.accountID = [] { return std::optional<std::string>("acc_1"); };
        u.directory = recordings;
        u.main = &main;
        upload = std::make_unique<BufferedAudioUpload>(std::move(u));
        AgentRequestParts p;
        p.insuranceEnabled = [this] { return enabled; };
        p.signedIn = [this] { return signedIn; };
        p.poll = [this](auto done) {
            events.push_back("poll");
            polls.push_back(std::move(done));
        };
        p.report = [this](const json& body, auto done) {
            events.push_back("report");
            reports.emplace_back(body, std::move(done));
        };
        p.seal = [this] { events.push_back("seal"); };
        p.chunks = [this] {
            events.push_back("chunks");
            return store.chunks();
        };
        p.upload = [this](const std::vector<InsuranceChunk>& c, BufferedAudioUpload::Done done) {
            upload->upload(c, std::move(done));
        };
        p.now = [this] { return clock.now(); };
        p.main = &main;
        agent = std::make_unique<InsuranceAgentRequests>(std::move(p));
        agent->start();
    }
    void TearDown() override {
        agent.reset();
        upload.reset();
        queue.reset();
        runtime::install(nullptr, nullptr);
    }
    // A sealed 30 s chunk from `start` (seconds since 1970), filled with one byte value.
    InsuranceChunk chunk(double start, char fill, int bytes = 100) {
        auto file = store.directory() / chunk_names::sealedName(at(start), at(start + 30), 50);
        testing::writeFile(file, std::string(static_cast<size_t>(bytes), fill));
        for (auto& c : store.chunks()) {
            if (c.url == file) return c;
        }
        return {};
    }
    // One poll answered with this request.
    void ask(double fromS, double toS, const std::string& id = "req_1") {
        main.advance(kAgentPollSeconds);
        ASSERT_FALSE(polls.empty());
        auto answer = std::move(polls.back());
        polls.pop_back();
        answer(std::optional<AgentRequest>(AgentRequest{id, ms(fromS), ms(toS)}));
        main.runPending();
    }
    void finishReport(bool ok = true) {
        ASSERT_FALSE(reports.empty());
        auto done = std::move(reports.back().second);
        if (ok) done(Unit{});
        else done(unexpected(APIError::transport(7, "Couldn't connect to server", true)));
        main.runPending();
    }
    int count(const std::string& event) const { return static_cast<int>(std::count(events.begin(), events.end(), event)); }
};

TEST_F(AgentRequests, PollsEveryFiveSecondsOnlyWhileOnAndSignedInAndNeverTwiceAtOnce) {
    enabled = false;
    main.advance(20);
    signedIn = false;
    enabled = true;
    main.advance(20);
    EXPECT_EQ(count("poll"), 0);

    signedIn = true;
    main.advance(kAgentPollSeconds - 0.1);
    EXPECT_EQ(count("poll"), 0);
    main.advance(0.1);
    EXPECT_EQ(count("poll"), 1);
    // The answer has not come: later ticks do nothing.
    main.advance(30);
    EXPECT_EQ(count("poll"), 1);
    EXPECT_TRUE(agent->busy());
    // No request, then a failed poll: both end the tick quietly.
    polls.back()(std::optional<AgentRequest>());
    main.runPending();
    EXPECT_FALSE(agent->busy());
    main.advance(kAgentPollSeconds);
    polls.back()(unexpected(APIError::http(500, "server_error", std::nullopt)));
    main.runPending();
    main.advance(kAgentPollSeconds);
    EXPECT_EQ(count("poll"), 3);
    EXPECT_TRUE(reports.empty());
    EXPECT_TRUE(agent->answered.get().empty());
}

TEST_F(AgentRequests, ASpanOutsideTheBufferIsEmptyAndAChunkEndingAtItsStartIsNotTaken) {
    chunk(9'000, 'a');  // 9000...9030
    ask(9'030, 9'060);  // begins exactly where the chunk ends
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].first, (json{{"id", "req_1"}, {"status", "empty"}}));
    // The open chunk was sealed before the listing was read.
    EXPECT_EQ(events, (std::vector<std::string>{"poll", "seal", "chunks", "report"}));
    finishReport();
    ASSERT_EQ(agent->answered.get().size(), 1u);
    EXPECT_EQ(agent->answered.get()[0].status, "empty");
    EXPECT_TRUE(agent->answered.get()[0].reported);
    EXPECT_TRUE(pending.list.empty());
    // A long run keeps the newest answers only; a status shows the newest few.
    for (size_t i = 1; i <= kAnswersKept; ++i) {
        ask(9'030, 9'060, "req_" + std::to_string(i + 1));
        finishReport();
    }
    EXPECT_EQ(agent->answered.get().size(), kAnswersKept);
    EXPECT_EQ(agent->answered.get().front().request.id, "req_2");
    const auto recent = agent->recentAnswers();
    ASSERT_EQ(recent.size(), kRecentAnswers);
    EXPECT_EQ(recent.back().request.id, "req_" + std::to_string(kAnswersKept + 1));

    // The overlap is strict on both sides, open chunks are never taken, empty files neither.
    const auto a = chunk(9'100, 'b');
    const auto b = chunk(9'130, 'c');
    auto open = b;
    open.isOpen = true;
    open.start = at(9'160);
    auto empty = b;
    empty.bytes = 0;
    empty.start = at(9'100);
    const std::vector<InsuranceChunk> all{a, b, open, empty};
    EXPECT_EQ(InsuranceAgentRequests::chunksFor(all, at(9'130), at(9'131)), std::vector<InsuranceChunk>{b});
    EXPECT_EQ(InsuranceAgentRequests::chunksFor(all, at(9'129.9), at(9'130)), std::vector<InsuranceChunk>{a});
    EXPECT_EQ(InsuranceAgentRequests::chunksFor(all, at(9'000), at(9'200)), (std::vector<InsuranceChunk>{a, b}));
}

TEST_F(AgentRequests, TheSpanBecomesAPendingRecordingThatTheQueueSendsAndIsReportedWithItsId) {
    chunk(9'000, 'a');
    const auto first = chunk(9'030, 'b');
    const auto last = chunk(9'060, 'c', 50);
    ask(9'040, 9'070);
    // Joined in order into a ready recording of the account, spanning the chunks.
    ASSERT_EQ(pending.list.size(), 1u);
    const auto r = pending.list[0];
    EXPECT_EQ(r.startedAt, first.start);
    EXPECT_EQ(r.finishedAt, last.end);
    EXPECT_EQ(r.accountID, "acc_1");
    EXPECT_EQ(r.fileURL.parent_path(), recordings);
    EXPECT_EQ(r.fileURL.filename().string(), "vell_rec_" + r.id + ".aac");
    ASSERT_EQ(uploader.calls.size(), 1u);
    EXPECT_EQ(uploader.calls[0].bytes, std::string(100, 'b') + std::string(50, 'c'));
    EXPECT_EQ(pending.at(r.id).status, recording::PendingRecording::Status::uploading);

    // A second tick while the upload runs does nothing.
    main.advance(3 * kAgentPollSeconds);
    EXPECT_EQ(count("poll"), 1);
    EXPECT_TRUE(reports.empty());

    std::vector<AgentAnswer> told;
    agent->onAnswer = [&](const AgentAnswer& a) { told.push_back(a); };
    uploader.calls[0].done(std::string("rec_42"));
    main.runPending();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].first, (json{{"id", "req_1"}, {"status", "uploaded"}, {"recordingId", "rec_42"}}));
    EXPECT_EQ(pending.at(r.id).status, recording::PendingRecording::Status::uploaded);
    finishReport();
    EXPECT_FALSE(agent->busy());
    ASSERT_EQ(agent->answered.get().size(), 1u);
    EXPECT_EQ(agent->answered.get()[0].recordingID, "rec_42");
    // What left is named by the chunks sent, wider than the span asked.
    EXPECT_EQ(agent->answered.get()[0].sent, (SentAudio{first.start, last.end, 60}));
    EXPECT_EQ(told, agent->answered.get());
    main.advance(kAgentPollSeconds);
    EXPECT_EQ(count("poll"), 2);
}

TEST_F(AgentRequests, EveryFailureIsReportedWithItsOwnSentence) {
    chunk(9'000, 'a');
    // The upload fails.
    ask(9'000, 9'010, "req_fail");
    ASSERT_EQ(uploader.calls.size(), 1u);
    uploader.calls[0].done(unexpected(UploadError(APIError::http(500, "server_error", std::nullopt))));
    main.runPending();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].first, (json{{"id", "req_fail"}, {"status", "failed"},
                                      {"error", "Upload failed. Vell will retry from the menu."}}));
    // The report does not arrive: kept as unreported, and the next tick asks again.
    finishReport(false);
    EXPECT_FALSE(agent->answered.get().back().reported);
    EXPECT_FALSE(agent->answered.get().back().sent);
    EXPECT_FALSE(agent->busy());

    // The service took it but gave no id.
    ask(9'000, 9'010, "req_noid");
    ASSERT_EQ(uploader.calls.size(), 2u);
    uploader.calls[1].done(std::string());
    main.runPending();
    EXPECT_EQ(reports.back().first, (json{{"id", "req_noid"}, {"status", "failed"}, {"error", messages::kUploadedWithoutId}}));
    finishReport();

    // A chunk the prune removed between the listing and the join: the join's own reason, and
    // no half-made file among the recordings.
    const auto doomed = chunk(9'100, 'd');
    std::string removedFile = doomed.url.string();
    agent.reset();
    AgentRequestParts p;
    p.insuranceEnabled = [] { return true; };
    p.signedIn = [] { return true; };
    p.poll = [this](auto done) { polls.push_back(std::move(done)); };
    p.report = [this](const json& body, auto done) { reports.emplace_back(body, std::move(done)); };
    p.seal = [] {};
    p.chunks = [this, removedFile] {
        auto listed = store.chunks();
        fs::remove(removedFile);
        return listed;
    };
    p.upload = [this](const std::vector<InsuranceChunk>& c, BufferedAudioUpload::Done done) { upload->upload(c, std::move(done)); };
    p.now = [this] { return clock.now(); };
    p.main = &main;
    agent = std::make_unique<InsuranceAgentRequests>(std::move(p));
    agent->start();
    ask(9'100, 9'120, "req_pruned");
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ(reports.back().first["status"], "failed");
    EXPECT_NE(reports.back().first["error"].get<std::string>(), "");
    EXPECT_NE(reports.back().first["error"].get<std::string>(), messages::kUploadFailed.str());
    EXPECT_EQ(uploader.calls.size(), 2u);
    for (const auto& entry : fs::directory_iterator(recordings)) {
        bool known = false;
        for (const auto& r : pending.list) known = known || r.fileURL == entry.path();
        EXPECT_TRUE(known) << entry.path();
    }
}

TEST_F(AgentRequests, AnUploadTheQueueNeverTriesIsReportedFailedAfterTheLimitAndStaysPending) {
    chunk(9'000, 'a');
    queue->setAccount(std::nullopt);  // signed out meanwhile: the queue sends nothing
    ask(9'000, 9'010);
    EXPECT_TRUE(uploader.calls.empty());
    main.advance(kBufferedUploadLimitSeconds - 1);
    EXPECT_TRUE(reports.empty());
    main.advance(1);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].first["error"], messages::kUploadFailed.str());
    ASSERT_EQ(pending.list.size(), 1u);
    EXPECT_EQ(pending.list[0].status, recording::PendingRecording::Status::ready);
    // The reports' body keeps "error" out of the other outcomes.
    EXPECT_EQ(reportBody({{"r", 1, 2}, "uploaded", "rec", "ignored", false, {}}),
              (json{{"id", "r"}, {"status", "uploaded"}, {"recordingId", "rec"}}));
    EXPECT_EQ(decodeAgentRequest(json{{"request", nullptr}}), std::nullopt);
    EXPECT_EQ(decodeAgentRequest(json{{"request", {{"id", "x"}, {"fromMs", 1.5}, {"toMs", 2}}}}),
              (AgentRequest{"x", 1.5, 2}));
}

// Local times in a fixed zone (UTC+2, no summer time) for the length of a test.
class FixedZone {
public:
    FixedZone() {
        if (const char* tz = std::getenv("TZ")) saved_ = tz;
        ::setenv("TZ", "EET-2", 1);
        ::tzset();
    }
    ~FixedZone() {
        if (saved_) ::setenv("TZ", saved_->c_str(), 1);
        else ::unsetenv("TZ");
        ::tzset();
    }

private:
    std::optional<std::string> saved_;
};

TEST(AgentAnswerText, TellsWhatLeftInBothLanguagesWithItsSpanInLocalTime) {
    FixedZone zone;
    const double ten = 1'800'000'000;  // 08:00 UTC, 10:00 local
    struct Length {
        double seconds;
        const char *en, *es;
    };
    for (const auto& c : std::vector<Length>{{0.3, "1 second", "1 segundo"},
                                             {45, "45 seconds", "45 segundos"},
                                             {59.4, "59 seconds", "59 segundos"},
                                             {59.6, "1 minute", "1 minuto"},
                                             {89, "1 minute", "1 minuto"},
                                             {90, "2 minutes", "2 minutos"},
                                             {3'600, "60 minutes", "60 minutos"}}) {
        EXPECT_EQ(spokenDuration(c.seconds, Language::English), c.en) << c.seconds;
        EXPECT_EQ(spokenDuration(c.seconds, Language::Spanish), c.es) << c.seconds;
    }

    // Asked 10:02:40-10:03:50; the whole chunks 10:02-10:04 went.
    AgentAnswer sent{{"req_1", ms(ten + 160), ms(ten + 230)}, "uploaded", "rec_1", std::nullopt, true, at(ten + 310),
                     SentAudio{at(ten + 120), at(ten + 240), 120}};
    EXPECT_EQ(sentNotice(sent, Language::English), "Vell sent 2 minutes of audio (10:02-10:04) to your assistant");
    EXPECT_EQ(sentNotice(sent, Language::Spanish), "Vell envió 2 minutos de audio (10:02-10:04) a tu asistente");
    EXPECT_EQ(answerLine(sent, Language::English), "Sent to your assistant: 10:02-10:04 (2 minutes), at 10:05");
    EXPECT_EQ(answerLine(sent, Language::Spanish), "Enviado a tu asistente: 10:02-10:04 (2 minutos), a las 10:05");
    // Nothing sent: the asked span, and that nothing went.
    AgentAnswer empty{{"req_2", ms(ten - 3'600), ms(ten - 3'555)}, "empty", std::nullopt, std::nullopt, true, at(ten + 310), {}};
    EXPECT_EQ(answerLine(empty, Language::English),
              "Asked for by your assistant, nothing was kept then: 09:00-09:00 (45 seconds), at 10:05");
    auto failed = empty;
    failed.status = "failed";
    failed.error = messages::kUploadFailed.str();
    EXPECT_EQ(answerLine(failed, Language::Spanish),
              "Pedido por tu asistente, falló la subida: 09:00-09:00 (45 segundos), a las 10:05");

    // The host hands answers to front ends as JSON; they come back whole.
    EXPECT_EQ(answerFromJson(answerJson(sent)), sent);
    EXPECT_EQ(answerFromJson(answerJson(failed)), failed);
    EXPECT_EQ(answerFromJson(json("garbage")).status, "");
}

}  // namespace
}  // namespace vell::insurance
