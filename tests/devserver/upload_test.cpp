// The resumable upload, the single multipart upload and live chunks.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <signal.h>
#include <thread>

#include "tests/devserver/devserver_process.h"

namespace vell::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

json findById(const json& list, const std::string& key, const std::string& id) {
    for (const auto& item : list) {
        if (item[key] == id) return item;
    }
    return nullptr;
}

class DevServerUpload : public ::testing::Test {
protected:
    DevServerProcess server{{"--user", "ana@example.com:pw", "--user", "bob@example.com:pw"}};
    Api ana{server};
    void SetUp() override { ASSERT_EQ(ana.login("ana@example.com", "pw").status, 200); }
};

TEST_F(DevServerUpload, StoresTheFileInOffsetCheckedPartsAndFinalizesOnce) {
    const std::string file = randomBytes(3 * 1024 * 1024 + 17, 1);
    auto start = ana.start("vell_rec_A.aac", static_cast<int64_t>(file.size()), "vell_rec_A.aac");
    ASSERT_EQ(start.status, 200);
    EXPECT_EQ(start.body["bytesReceived"], 0);
    EXPECT_EQ(start.body["status"], "open");
    EXPECT_FALSE(start.body.contains("recordingId"));
    const std::string id = start.body["uploadId"];

    const size_t chunk = 1024 * 1024;
    auto first = ana.part(id, 0, file.substr(0, chunk));
    EXPECT_EQ(first.status, 200);
    EXPECT_EQ(first.body["bytesReceived"], chunk);

    // A repeated or skipped offset is refused and names the durable count.
    for (int64_t wrong : {int64_t{0}, int64_t{2 * chunk}}) {
        auto mismatch = ana.part(id, wrong, file.substr(wrong, chunk));
        EXPECT_EQ(mismatch.status, 409);
        EXPECT_EQ(mismatch.body, (json{{"ok", false}, {"error", "offset_mismatch"}, {"bytesReceived", chunk}}));
    }
    auto early = ana.postEmpty("/api/recordings/upload/" + id + "/finalize");
    EXPECT_EQ(early.status, 409);
    EXPECT_EQ(early.body, (json{{"ok", false}, {"error", "incomplete"}, {"bytesReceived", chunk}}));

    // The same key resumes the same upload at the stored count.
    auto resumed = ana.start("vell_rec_A.aac", static_cast<int64_t>(file.size()), "vell_rec_A.aac");
    EXPECT_EQ(resumed.body["uploadId"], id);
    EXPECT_EQ(resumed.body["bytesReceived"], chunk);

    auto rest = ana.part(id, chunk, file.substr(chunk));
    EXPECT_EQ(rest.body["bytesReceived"], file.size());
    auto created = ana.post("/api/recordings/upload/" + id + "/finalize",
                            {{"captureStartedAt", 1700000000000}, {"captureEndedAt", 1700000060000}});
    ASSERT_EQ(created.status, 200);
    const std::string recordingId = created.body["id"];
    EXPECT_EQ(ana.postEmpty("/api/recordings/upload/" + id + "/finalize").body, (json{{"id", recordingId}}));

    auto again = ana.start("vell_rec_A.aac", static_cast<int64_t>(file.size()), "vell_rec_A.aac");
    EXPECT_EQ(again.body["status"], "done");
    EXPECT_EQ(again.body["recordingId"], recordingId);
    auto late = ana.part(id, static_cast<int64_t>(file.size()), "x");
    EXPECT_EQ(late.status, 409);
    EXPECT_EQ(late.body, (json{{"ok", false}, {"error", "already_finalized"}, {"recordingId", recordingId}}));

    auto recording = findById(ana.admin("GET", "/admin/recordings").body, "id", recordingId);
    ASSERT_FALSE(recording.is_null());
    EXPECT_EQ(recording["email"], "ana@example.com");
    EXPECT_EQ(recording["filename"], "vell_rec_A.aac");
    EXPECT_EQ(recording["mimeType"], "audio/aac");
    EXPECT_EQ(recording["bytes"], file.size());
    EXPECT_EQ(recording["sha256"], sha256Hex(file));
    EXPECT_EQ(recording["captureStartedAt"], 1700000000000);
    EXPECT_EQ(recording["captureEndedAt"], 1700000060000);
    EXPECT_EQ(readFile(recording["path"].get<std::string>()), file);

    auto upload = findById(ana.admin("GET", "/admin/uploads").body, "uploadId", id);
    EXPECT_EQ(upload["finalized"], true);
    EXPECT_EQ(upload["recordingId"], recordingId);
    EXPECT_EQ(upload["key"], "vell_rec_A.aac");
}

TEST_F(DevServerUpload, EmptyFileFinalizesWithoutParts) {
    auto start = ana.start("empty.aac", 0);
    ASSERT_EQ(start.status, 200);
    auto created = ana.postEmpty("/api/recordings/upload/" + start.body["uploadId"].get<std::string>() + "/finalize");
    ASSERT_EQ(created.status, 200);
    auto recording = findById(ana.admin("GET", "/admin/recordings").body, "id", created.body["id"]);
    EXPECT_EQ(recording["bytes"], 0);
    EXPECT_TRUE(recording["captureStartedAt"].is_null());
}

TEST_F(DevServerUpload, KeysBelongToOneAccount) {
    Api bob(server);
    ASSERT_EQ(bob.login("bob@example.com", "pw").status, 200);
    auto a = ana.start("same-name.aac", 100);
    auto b = bob.start("same-name.aac", 100);
    ASSERT_EQ(a.status, 200);
    ASSERT_EQ(b.status, 200);
    EXPECT_NE(a.body["uploadId"], b.body["uploadId"]);
    EXPECT_EQ(ana.part(a.body["uploadId"], 0, std::string(60, 'a')).body["bytesReceived"], 60);
    EXPECT_EQ(bob.start("same-name.aac", 100).body["bytesReceived"], 0);
    // Another account's upload does not exist for bob.
    EXPECT_EQ(bob.part(a.body["uploadId"], 60, std::string(40, 'b')).status, 404);
    EXPECT_EQ(bob.postEmpty("/api/recordings/upload/" + a.body["uploadId"].get<std::string>() + "/finalize").status, 404);
    EXPECT_EQ(ana.part("upl_unknown", 0, "x").status, 404);
}

TEST_F(DevServerUpload, RefusesBadStartsAndParts) {
    for (const auto& body : {json{{"filename", "a.aac"}, {"totalBytes", 1}}, json{{"mimeType", "audio/aac"}, {"totalBytes", 1}},
                             json{{"mimeType", "audio/aac"}, {"filename", "a.aac"}},
                             json{{"mimeType", "audio/aac"}, {"filename", "a.aac"}, {"totalBytes", -1}},
                             json{{"mimeType", "audio/aac"}, {"filename", "a.aac"}, {"totalBytes", "12"}}}) {
        auto reply = ana.post("/api/recordings/upload/start", body, {{"X-Vell-Idempotency-Key", "a.aac"}});
        EXPECT_EQ(reply.status, 400) << body;
        EXPECT_EQ(reply.body["error"], "missing_fields") << body;
    }
    auto noKey = ana.post("/api/recordings/upload/start", {{"mimeType", "audio/aac"}, {"filename", "a.aac"}, {"totalBytes", 1}});
    EXPECT_EQ(noKey.status, 400);

    const std::string id = ana.start("small.aac", 10).body["uploadId"];
    auto tooLong = ana.part(id, 0, std::string(11, 'x'));
    EXPECT_EQ(tooLong.status, 400);
    EXPECT_EQ(tooLong.body["error"], "exceeds_total");
    EXPECT_EQ(ana.part(id, 0, "").body["error"], "empty_part");
    auto noOffset = ana.put("/api/recordings/upload/" + id + "/part", "abc", {});
    EXPECT_EQ(noOffset.body["error"], "invalid_offset");
    EXPECT_EQ(ana.put("/api/recordings/upload/" + id + "/part", "abc", {{"X-Upload-Offset", "-3"}}).status, 400);
    // None of it was stored.
    EXPECT_EQ(ana.start("small.aac", 10).body["bytesReceived"], 0);
    EXPECT_EQ(fs::file_size(server.dataDir() / "uploads" / (id + ".part")), 0u);
    auto badFinalize = ana.post("/api/recordings/upload/" + id + "/finalize", {{"captureStartedAt", "soon"}});
    EXPECT_EQ(badFinalize.body["error"], "invalid_fields");
}

TEST_F(DevServerUpload, ResumesAfterTheServiceIsKilledMidUpload) {
    const std::string file = randomBytes(5 * 1000 * 1000, 2);
    const std::string id = ana.start("crash.aac", static_cast<int64_t>(file.size())).body["uploadId"];
    ASSERT_EQ(ana.part(id, 0, file.substr(0, 2000000)).body["bytesReceived"], 2000000);
    // Bytes that reach the disk after the last acknowledgement (a write cut short by the
    // crash) are not counted.
    {
        std::ofstream tail(server.dataDir() / "uploads" / (id + ".part"), std::ios::binary | std::ios::app);
        tail << "half-written garbage";
    }
    server.restart();
    EXPECT_EQ(fs::file_size(server.dataDir() / "uploads" / (id + ".part")), 2000000u);
    auto resumed = ana.start("crash.aac", static_cast<int64_t>(file.size()));
    EXPECT_EQ(resumed.body["uploadId"], id);
    EXPECT_EQ(resumed.body["bytesReceived"], 2000000);
    ASSERT_EQ(ana.part(id, 2000000, file.substr(2000000)).body["bytesReceived"], file.size());

    server.restart();
    auto created = ana.postEmpty("/api/recordings/upload/" + id + "/finalize");
    ASSERT_EQ(created.status, 200);
    auto recording = findById(ana.admin("GET", "/admin/recordings").body, "id", created.body["id"]);
    EXPECT_EQ(recording["sha256"], sha256Hex(file));
    server.restart();
    EXPECT_EQ(ana.start("crash.aac", static_cast<int64_t>(file.size())).body["recordingId"], created.body["id"]);
}

TEST_F(DevServerUpload, AKillDuringAPartKeepsOnlyAcknowledgedBytes) {
    const std::string file = randomBytes(12 << 20, 9);
    const std::string id = ana.start("killed.aac", static_cast<int64_t>(file.size())).body["uploadId"];
    ASSERT_EQ(ana.part(id, 0, file.substr(0, 1 << 20)).body["bytesReceived"], 1 << 20);
    const fs::path partFile = server.dataDir() / "uploads" / (id + ".part");

    // The second part trickles in; the service dies once some of it reached the disk.
    std::thread sender([&] {
        auto client = server.client();
        const std::string body = file.substr(1 << 20, 8 << 20);
        client.Put(("/api/recordings/upload/" + id + "/part").c_str(),
                   {{"Cookie", "vell_session=" + ana.cookies["vell_session"]}, {"X-Upload-Offset", std::to_string(1 << 20)}},
                   body.size(),
                   [&](size_t offset, size_t length, httplib::DataSink& sink) {
                       std::this_thread::sleep_for(std::chrono::milliseconds(5));
                       return sink.write(body.data() + offset, std::min<size_t>(length, 128 << 10));
                   },
                   "audio/aac");
    });
    while (fs::file_size(partFile) <= (2u << 20)) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    server.kill(SIGKILL);
    sender.join();

    server.start();
    auto resumed = ana.start("killed.aac", static_cast<int64_t>(file.size()));
    EXPECT_EQ(resumed.body["bytesReceived"], 1 << 20);
    EXPECT_EQ(fs::file_size(partFile), 1u << 20);
    ASSERT_EQ(ana.part(id, 1 << 20, file.substr(1 << 20)).body["bytesReceived"], file.size());
    auto created = ana.postEmpty("/api/recordings/upload/" + id + "/finalize");
    EXPECT_EQ(findById(ana.admin("GET", "/admin/recordings").body, "id", created.body["id"])["sha256"], sha256Hex(file));
}

TEST_F(DevServerUpload, AChangedFileUnderTheSameKeyStartsOver) {
    const std::string id = ana.start("grew.aac", 100).body["uploadId"];
    ASSERT_EQ(ana.part(id, 0, std::string(50, 'a')).status, 200);
    auto restarted = ana.start("grew.aac", 120);
    EXPECT_EQ(restarted.body["uploadId"], id);
    EXPECT_EQ(restarted.body["bytesReceived"], 0);
    EXPECT_EQ(ana.part(id, 0, std::string(120, 'b')).body["bytesReceived"], 120);
}

TEST_F(DevServerUpload, MultipartFormStreamsTheAudioPart) {
    const std::string audio = randomBytes(2 * 1024 * 1024 + 5, 3);
    httplib::MultipartFormDataItems items = {
        {"audio", audio, "vell_rec_B.aac", "audio/aac"},
        {"summary_prompt_id", "prompt-7", "", ""},
        {"capture_started_at", "1700000000000", "", ""},
        {"capture_ended_at", "1700000001000", "", ""},
    };
    auto client = server.client();
    httplib::Headers headers = {{"Cookie", "vell_session=" + ana.cookies["vell_session"]}};
    auto result = client.Post("/api/recordings", headers, items);
    ASSERT_TRUE(result);
    ASSERT_EQ(result->status, 200) << result->body;
    auto id = json::parse(result->body)["id"];
    auto recording = findById(ana.admin("GET", "/admin/recordings").body, "id", id);
    EXPECT_EQ(recording["sha256"], sha256Hex(audio));
    EXPECT_EQ(recording["bytes"], audio.size());
    EXPECT_EQ(recording["filename"], "vell_rec_B.aac");
    EXPECT_EQ(recording["mimeType"], "audio/aac");
    EXPECT_EQ(recording["summaryPromptId"], "prompt-7");
    EXPECT_EQ(recording["captureEndedAt"], 1700000001000);
    EXPECT_EQ(readFile(recording["path"].get<std::string>()), audio);

    auto noAudio = client.Post("/api/recordings", headers, httplib::MultipartFormDataItems{{"summary_prompt_id", "p", "", ""}});
    ASSERT_TRUE(noAudio);
    EXPECT_EQ(noAudio->status, 400);
    auto anonymous = server.client().Post("/api/recordings", items);
    ASSERT_TRUE(anonymous);
    EXPECT_EQ(anonymous->status, 401);
    // Nothing half-received is left behind.
    for (const auto& entry : fs::directory_iterator(server.dataDir() / "recordings")) {
        EXPECT_NE(entry.path().extension(), ".incoming");
    }
}

TEST_F(DevServerUpload, LiveChunksAreStoredInOrder) {
    auto first = ana.post("/api/recordings/live/live-1/chunk", json("ignored"));  // any bytes
    EXPECT_EQ(first.status, 200);
    EXPECT_EQ(first.body, (json{{"ok", true}, {"index", 0}, {"nextIndex", 1}}));
    auto client = server.client();
    httplib::Headers headers = {{"Cookie", "vell_session=" + ana.cookies["vell_session"]}};
    auto second = client.Post("/api/recordings/live/live-1/chunk", headers, std::string(1000, 'm'), "audio/mp4");
    ASSERT_TRUE(second);
    EXPECT_EQ(second->status, 200);
    const std::string accountId = ana.get("/api/me").body["id"];
    const fs::path dir = server.dataDir() / "live" / accountId / "live-1";
    EXPECT_EQ(readFile(dir / "chunk-000002.mp4"), std::string(1000, 'm'));
    EXPECT_TRUE(fs::exists(dir / "chunk-000001.mp4"));
    EXPECT_EQ(ana.post("/api/recordings/live/bad.id/chunk", json("x")).status, 400);
}

TEST_F(DevServerUpload, OneLargePutIsStreamedToDisk) {
    // 96 MiB in one request: a server that buffered the body would need more than that.
    const std::string file = randomBytes(96u << 20, 4);
    const std::string id = ana.start("big.aac", static_cast<int64_t>(file.size())).body["uploadId"];
    auto reply = ana.part(id, 0, file);
    ASSERT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body["bytesReceived"], file.size());
    EXPECT_LT(server.peakRssKiB(), 64 * 1024) << "peak RSS of the service in KiB";
    auto created = ana.postEmpty("/api/recordings/upload/" + id + "/finalize");
    auto recording = findById(ana.admin("GET", "/admin/recordings").body, "id", created.body["id"]);
    EXPECT_EQ(recording["sha256"], sha256Hex(file));
}

}  // namespace
}  // namespace vell::test
