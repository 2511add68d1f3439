// The reference service's live sessions and results over HTTP: chunks kept in order with
// their numbers, one account never reaching another's session, tiles from both sides'
// levels, close and purge; recordings processed through their states, failures injected,
// speakers named, share links, and all of it kept across a crash of the service.
#include <gtest/gtest.h>

#include <thread>

#include "tests/devserver/devserver_process.h"

namespace vell::test {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

class LiveRoutes : public ::testing::Test {
protected:
    DevServerProcess server{{"--user", "ana@example.com:pw", "--user", "bob@example.com:pw"}};
    Api ana{server}, bob{server};
    void SetUp() override {
        ASSERT_EQ(ana.login("ana@example.com", "pw").status, 200);
        ASSERT_EQ(bob.login("bob@example.com", "pw").status, 200);
    }
    Reply chunk(Api& who, const std::string& session, std::optional<int> index, const std::string& sides = "",
                std::optional<long long> startMs = std::nullopt) {
        httplib::Headers headers = {{"Cookie", "vell_session=" + who.cookies["vell_session"]}};
        if (index) headers.emplace("X-Vell-Chunk-Index", std::to_string(*index));
        if (startMs) headers.emplace("X-Vell-Chunk-Start-Ms", std::to_string(*startMs));
        if (!sides.empty()) headers.emplace("X-Vell-Sides", sides);
        auto client = server.client();
        auto r = client.Post("/api/recordings/live/" + session + "/chunk", headers, std::string(2000, 'a'), "audio/mp4");
        Reply reply;
        if (!r) return reply;
        reply.status = r->status;
        reply.body = json::parse(r->body, nullptr, false);
        return reply;
    }
    json liveAdmin() { return ana.admin("GET", "/admin/live").body; }
    // Uploads a small recording in one multipart request; its id.
    std::string upload(Api& who) {
        httplib::MultipartFormDataItems items = {{"audio", std::string(4000, 'x'), "vell_rec_T.aac", "audio/aac"}};
        auto client = server.client();
        auto r = client.Post("/api/recordings", {{"Cookie", "vell_session=" + who.cookies["vell_session"]}}, items);
        EXPECT_TRUE(r && r->status == 200);
        return r ? json::parse(r->body).value("id", "") : "";
    }
    json waitFor(Api& who, const std::string& id, const std::string& state) {
        json detail;
        for (int i = 0; i < 100; ++i) {
            detail = who.get("/api/recordings/" + id).body;
            if (detail.value("state", "") == state) break;
            std::this_thread::sleep_for(50ms);
        }
        return detail;
    }
};

TEST_F(LiveRoutes, ChunksKeepTheirOrderRetriesAreRecognisedAndOtherAccountsNeverGetIn) {
    auto opened = ana.post("/api/recordings/live", json{{"sessionId", "s-1"}, {"recordingId", "REC"}});
    ASSERT_EQ(opened.status, 200);
    EXPECT_EQ(opened.body["nextIndex"], 0);
    EXPECT_EQ(ana.post("/api/recordings/live", json{{"sessionId", "s-1"}}).status, 200);  // idempotent
    EXPECT_EQ(bob.post("/api/recordings/live", json{{"sessionId", "s-1"}}).status, 404);
    EXPECT_EQ(ana.post("/api/recordings/live", json{{"sessionId", "bad/id"}}).status, 400);

    EXPECT_EQ(chunk(ana, "s-1", 0).status, 200);
    auto again = chunk(ana, "s-1", 0);
    EXPECT_EQ(again.status, 200);
    EXPECT_EQ(again.body["duplicate"], true);
    EXPECT_EQ(chunk(ana, "s-1", 3).status, 200);  // two were dropped by the client
    auto late = chunk(ana, "s-1", 2);
    EXPECT_EQ(late.status, 409);
    EXPECT_EQ(late.body, (json{{"ok", false}, {"error", "chunk_out_of_order"}, {"nextIndex", 4}}));
    EXPECT_EQ(chunk(ana, "s-1", std::nullopt).body["index"], 4);
    EXPECT_EQ(chunk(bob, "s-1", 5).status, 404);
    EXPECT_EQ(chunk(ana, "s-1", 5, "500;-20,x;-30").status, 400);

    auto live = liveAdmin();
    ASSERT_EQ(live.size(), 1u);
    std::vector<int> indexes;
    for (const auto& c : live[0]["chunks"]) indexes.push_back(c["index"]);
    EXPECT_EQ(indexes, (std::vector<int>{0, 3, 4}));

    EXPECT_EQ(ana.postEmpty("/api/recordings/live/s-1/close").body["state"], "closed");
    EXPECT_EQ(chunk(ana, "s-1", 5).body["error"], "session_closed");
    EXPECT_EQ(bob.del("/api/recordings/live/s-1").status, 404);
    EXPECT_EQ(ana.del("/api/recordings/live/s-1").status, 200);
    EXPECT_EQ(ana.del("/api/recordings/live/s-1").status, 404);
    EXPECT_TRUE(liveAdmin().empty());
    EXPECT_FALSE(std::filesystem::exists(server.dataDir() / "live" / ana.get("/api/me").body["id"].get<std::string>() / "s-1"));
}

TEST_F(LiveRoutes, TilesComeFromBothSidesLevelsPlacedWhereEachChunkStarts) {
    ASSERT_EQ(ana.post("/api/recordings/live", json{{"sessionId", "s-2"}}).status, 200);
    // 2 s chunks: the microphone talks in the first, the call side in the second.
    EXPECT_EQ(chunk(ana, "s-2", 0, "500;-20,-20,-20,-20;-100,-100,-100,-100", 0).status, 200);
    EXPECT_EQ(chunk(ana, "s-2", 1, "500;-100,-100,-100,-100;-25,-25,-25,-25", 2000).status, 200);
    auto tiles = ana.get("/api/recordings/live/s-2/tiles");
    ASSERT_EQ(tiles.status, 200);
    ASSERT_EQ(tiles.body["tiles"].size(), 1u) << tiles.body.dump();  // talk time; no silence between the chunks
    EXPECT_EQ(tiles.body["tiles"][0]["kind"], "talkTime");
    EXPECT_EQ(tiles.body["tiles"][0]["data"]["shares"], (json{{"1", 50}, {"2", 50}}));
    EXPECT_EQ(liveAdmin()[0]["tilesFetched"], 1);
    EXPECT_EQ(bob.get("/api/recordings/live/s-2/tiles").status, 404);
}

TEST_F(LiveRoutes, RecordingsGoThroughTheirStatesAndTheirResultsSurviveACrash) {
    ana.admin("POST", "/admin/processing", json{{"delayMs", 600}});
    const std::string id = upload(ana);
    auto list = ana.get("/api/recordings").body["recordings"];
    ASSERT_EQ(list.size(), 1u);
    EXPECT_TRUE(list[0]["state"] == "queued" || list[0]["state"] == "processing") << list.dump();
    EXPECT_EQ(waitFor(ana, id, "processing")["state"], "processing");
    auto detail = waitFor(ana, id, "processed");
    ASSERT_EQ(detail["state"], "processed") << detail.dump();
    for (const char* key : {"summary", "transcript", "speakers", "cues"}) EXPECT_TRUE(detail.contains(key)) << key;
    EXPECT_EQ(bob.get("/api/recordings/" + id).status, 404);
    EXPECT_TRUE(bob.get("/api/recordings").body["recordings"].empty());

    // Levels arriving after the processing still tell the speakers apart.
    auto put = [&](const json& body) {
        httplib::Headers h = {{"Cookie", "vell_session=" + ana.cookies["vell_session"]}};
        auto client = server.client();
        return client.Put("/api/recordings/" + id + "/sides", h, body.dump(), "application/json")->status;
    };
    EXPECT_EQ(put(json{{"windowMs", 500}, {"microphone", {-20, -20}}, {"system", {-100, -30}}}), 200);
    EXPECT_EQ(put(json{{"windowMs", 500}, {"microphone", {7}}, {"system", json::array()}}), 400);
    EXPECT_EQ(ana.get("/api/recordings/" + id).body["speakers"].size(), 2u);

    EXPECT_EQ(ana.patch("/api/recordings/" + id + "/speakers", json{{"speakers", {{"3", "X"}}}}).status, 400);
    auto named = ana.patch("/api/recordings/" + id + "/speakers", json{{"speakers", {{"2", "Bruno"}}}});
    ASSERT_EQ(named.status, 200);
    EXPECT_EQ(named.body["speakers"][1]["name"], "Bruno");
    auto share = ana.postEmpty("/api/recordings/" + id + "/share");
    ASSERT_EQ(share.status, 200);
    EXPECT_EQ(ana.postEmpty("/api/recordings/" + id + "/share").body["url"], share.body["url"]);

    server.restart();
    ASSERT_EQ(ana.login("ana@example.com", "pw").status, 200);
    detail = ana.get("/api/recordings/" + id).body;
    EXPECT_EQ(detail["state"], "processed");
    EXPECT_EQ(detail["speakers"][1]["name"], "Bruno");
    auto client = server.client();
    const std::string path = share.body["url"].get<std::string>().substr(share.body["url"].get<std::string>().find("/s/"));
    auto page = client.Get(path);  // no session
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 200);
    EXPECT_NE(page->body.find("## Transcript"), std::string::npos);
}

TEST_F(LiveRoutes, AnInjectedFailureFailsOneProcessingOnly) {
    ana.admin("POST", "/admin/processing", json{{"failNext", 1}});
    const std::string first = upload(ana);
    auto failed = waitFor(ana, first, "failed");
    EXPECT_EQ(failed["state"], "failed");
    EXPECT_EQ(failed["error"], "processing_failed");
    EXPECT_FALSE(failed.contains("summary"));
    EXPECT_EQ(ana.postEmpty("/api/recordings/" + first + "/share").status, 409);
    const std::string second = upload(ana);
    EXPECT_EQ(waitFor(ana, second, "processed")["state"], "processed");
}

}  // namespace
}  // namespace vell::test
