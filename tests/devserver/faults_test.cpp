// Injected faults, the admin API's guard and the agent requests.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "devserver/faults.h"
#include "tests/devserver/devserver_process.h"

namespace vell::test {
namespace {

using nlohmann::json;

class DevServerFaults : public ::testing::Test {
protected:
    DevServerProcess server{{"--user", "ana@example.com:pw", "--user", "bob@example.com:pw"}};
    Api ana{server};
    void SetUp() override { ASSERT_EQ(ana.login("ana@example.com", "pw").status, 200); }
    std::string addFault(const json& rule) {
        auto reply = ana.admin("POST", "/admin/faults", rule);
        EXPECT_EQ(reply.status, 200) << reply.body;
        return reply.body.value("id", "");
    }
};

TEST_F(DevServerFaults, StatusFaultAnswersForItsCountThenStops) {
    addFault({{"method", "GET"}, {"path", "api/me"}, {"action", "status"}, {"status", 302},
              {"headers", {{"Location", "/login"}}}, {"body", {{"error", "invalid_credentials"}}}, {"times", 2}});
    for (int i = 0; i < 2; ++i) {
        auto reply = ana.get("/api/me");
        EXPECT_EQ(reply.status, 302);
        EXPECT_EQ(reply.headers.find("Location")->second, "/login");
        EXPECT_EQ(reply.body, (json{{"error", "invalid_credentials"}}));
    }
    EXPECT_EQ(ana.get("/api/me").status, 200);

    // Method and path both have to match; a string body goes out as it is.
    addFault({{"method", "POST"}, {"path", "/upload/start"}, {"action", "status"}, {"status", 500},
              {"body", "<html>oops</html>"}});
    EXPECT_EQ(ana.get("/api/me").status, 200);
    auto client = server.client();
    auto html = client.Post("/api/recordings/upload/start",
                            httplib::Headers{{"Cookie", "vell_session=" + ana.cookies["vell_session"]}}, "{}", "application/json");
    ASSERT_TRUE(html);
    EXPECT_EQ(html->status, 500);
    EXPECT_EQ(html->body, "<html>oops</html>");

    addFault({{"path", "api/"}, {"action", "status"}, {"status", 503}, {"times", 50}});
    EXPECT_EQ(ana.get("/api/me").status, 503);
    EXPECT_EQ(ana.admin("DELETE", "/admin/faults").status, 200);
    EXPECT_EQ(ana.get("/api/me").status, 200);
}

TEST_F(DevServerFaults, PartialAckStoresOnlyTheAcknowledgedBytes) {
    const std::string file = randomBytes(1000, 5);
    const std::string id = ana.start("partial.aac", 1000).body["uploadId"];
    addFault({{"method", "PUT"}, {"path", "/part"}, {"action", "partialAck"}, {"bytes", 300}});
    auto half = ana.part(id, 0, file);
    EXPECT_EQ(half.status, 200);
    EXPECT_EQ(half.body["bytesReceived"], 300);
    EXPECT_EQ(ana.part(id, 300, file.substr(300)).body["bytesReceived"], 1000);
    auto created = ana.postEmpty("/api/recordings/upload/" + id + "/finalize");
    auto recordings = ana.admin("GET", "/admin/recordings").body;
    ASSERT_EQ(recordings.size(), 1u);
    EXPECT_EQ(recordings[0]["sha256"], sha256Hex(file));
}

TEST_F(DevServerFaults, CloseAfterBytesKeepsWhatArrivedAndDropsTheConnection) {
    const std::string file = randomBytes(200000, 6);
    const std::string id = ana.start("dropped.aac", 200000).body["uploadId"];
    addFault({{"method", "PUT"}, {"path", id}, {"action", "closeAfterBytes"}, {"bytes", 65536}});
    auto dropped = ana.part(id, 0, file);
    EXPECT_EQ(dropped.status, 0) << "expected no response, got " << dropped.body;
    // The bytes read before the drop are durable and reported by the next start.
    auto resumed = ana.start("dropped.aac", 200000);
    const int64_t kept = resumed.body["bytesReceived"];
    EXPECT_GE(kept, 65536);
    EXPECT_LE(kept, 200000);
    EXPECT_EQ(std::filesystem::file_size(server.dataDir() / "uploads" / (id + ".part")), static_cast<uintmax_t>(kept));
    EXPECT_EQ(ana.part(id, kept, file.substr(kept)).body["bytesReceived"], 200000);
    EXPECT_EQ(ana.postEmpty("/api/recordings/upload/" + id + "/finalize").status, 200);
    EXPECT_EQ(ana.admin("GET", "/admin/recordings").body[0]["sha256"], sha256Hex(file));
}

TEST_F(DevServerFaults, ConflictAndDelayLeaveTheUploadAlone) {
    const std::string id = ana.start("conflict.aac", 100).body["uploadId"];
    addFault({{"method", "PUT"}, {"path", "/part"}, {"action", "conflict"}, {"bytesReceived", 0}});
    auto conflict = ana.part(id, 0, std::string(100, 'c'));
    EXPECT_EQ(conflict.status, 409);
    EXPECT_EQ(conflict.body, (json{{"ok", false}, {"error", "offset_mismatch"}, {"bytesReceived", 0}}));
    EXPECT_EQ(ana.start("conflict.aac", 100).body["bytesReceived"], 0);

    addFault({{"method", "PUT"}, {"path", "/part"}, {"action", "delay"}, {"delayMs", 400}});
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(ana.part(id, 0, std::string(100, 'c')).body["bytesReceived"], 100);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(400));
}

TEST_F(DevServerFaults, AdminApiNeedsItsToken) {
    EXPECT_EQ(ana.admin("GET", "/admin/uploads", nullptr, "").status, 403);
    auto wrong = ana.admin("GET", "/admin/uploads", nullptr, "nope");
    EXPECT_EQ(wrong.status, 403);
    EXPECT_EQ(wrong.body["error"], "forbidden");
    EXPECT_EQ(ana.admin("POST", "/admin/faults", {{"action", "explode"}}).status, 400);
    EXPECT_EQ(ana.admin("POST", "/admin/faults", {{"action", "status"}, {"status", 42}}).status, 400);
    // A fault never applies to the admin API itself.
    addFault({{"path", "/"}, {"action", "status"}, {"status", 500}, {"times", 10}});
    EXPECT_EQ(ana.admin("GET", "/admin/uploads").status, 200);
    EXPECT_EQ(ana.admin("DELETE", "/admin/faults").status, 200);

    DevServerProcess closed({}, false);
    auto disabled = Api(closed).admin("GET", "/admin/uploads");
    EXPECT_EQ(disabled.status, 403);
    EXPECT_EQ(disabled.body["error"], "admin_disabled");
}

TEST(DevServerAdmin, UsersCanBeAddedWhileRunning) {
    DevServerProcess server;
    Api admin(server);
    auto created = admin.admin("POST", "/admin/users",
                               {{"email", "Carla@Example.com"}, {"password", "pw2"}, {"role", "admin"},
                                {"totpSecret", "JBSWY3DPEHPK3PXP"}, {"backupCodes", {"one"}}});
    ASSERT_EQ(created.status, 200);
    EXPECT_EQ(admin.admin("POST", "/admin/users", {{"email", "x@example.com"}, {"password", "p"}, {"totpSecret", "1!"}}).status,
              400);
    Api carla(server);
    EXPECT_EQ(carla.login("carla@example.com", "pw2").body["mfaRequired"], true);
    ASSERT_EQ(carla.post("/api/auth/mfa", {{"backupCode", "one"}}).status, 200);
    auto me = carla.get("/api/me");
    EXPECT_EQ(me.body["id"], created.body["id"]);
    EXPECT_EQ(me.body["isAdmin"], true);
}

TEST(DevServerAgentRequests, OldestPendingRequestIsServedAndItsOutcomeRecorded) {
    DevServerProcess server({"--user", "ana@example.com:pw", "--user", "bob@example.com:pw", "--enqueue-request",
                             "ana@example.com:1000:2000"});
    Api ana(server), bob(server);
    ASSERT_EQ(ana.login("ana@example.com", "pw").status, 200);
    ASSERT_EQ(bob.login("bob@example.com", "pw").status, 200);
    EXPECT_EQ(bob.get("/api/insurance/requests").body, json::object());
    auto second = ana.admin("POST", "/admin/insurance/requests", {{"email", "ana@example.com"}, {"fromMs", 3000}, {"toMs", 4000.4}});
    ASSERT_EQ(second.status, 200);
    EXPECT_EQ(ana.admin("POST", "/admin/insurance/requests", {{"email", "zed@example.com"}, {"fromMs", 1}, {"toMs", 2}}).status, 404);

    auto first = ana.get("/api/insurance/requests").body["request"];
    EXPECT_EQ(first["fromMs"], 1000);
    EXPECT_EQ(first["toMs"], 2000);
    // Another account cannot answer it; bad reports are refused.
    EXPECT_EQ(bob.patch("/api/insurance/requests", {{"id", first["id"]}, {"status", "empty"}}).status, 404);
    EXPECT_EQ(ana.patch("/api/insurance/requests", {{"id", first["id"]}, {"status", "lost"}}).body["error"], "invalid_status");
    EXPECT_EQ(ana.patch("/api/insurance/requests", {{"id", first["id"]}, {"status", "uploaded"}}).body["error"],
              "missing_fields");

    auto report = ana.patch("/api/insurance/requests", {{"id", first["id"]}, {"status", "uploaded"}, {"recordingId", "rec_1"}});
    EXPECT_EQ(report.body, (json{{"ok", true}}));
    // A retried report is accepted; a contradicting one is not.
    EXPECT_EQ(ana.patch("/api/insurance/requests", {{"id", first["id"]}, {"status", "uploaded"}, {"recordingId", "rec_1"}}).status,
              200);
    EXPECT_EQ(ana.patch("/api/insurance/requests", {{"id", first["id"]}, {"status", "empty"}}).status, 409);

    server.restart();
    auto next = ana.get("/api/insurance/requests").body["request"];
    EXPECT_EQ(next["id"], second.body["id"]);
    EXPECT_EQ(next["toMs"], 4000);
    ASSERT_EQ(ana.patch("/api/insurance/requests", {{"id", next["id"]}, {"status", "failed"}, {"error", "No audio"}}).status, 200);
    EXPECT_EQ(ana.get("/api/insurance/requests").body, json::object());

    auto all = ana.admin("GET", "/admin/insurance/requests").body;
    ASSERT_EQ(all.size(), 2u) << "the startup request is not added twice by the restart";
    EXPECT_EQ(all[0]["status"], "uploaded");
    EXPECT_EQ(all[0]["recordingId"], "rec_1");
    EXPECT_EQ(all[1]["status"], "failed");
    EXPECT_EQ(all[1]["error"], "No audio");
}

TEST(DevServerFaultTable, MatchesByMethodAndPathAndCountsUses) {
    devserver::FaultTable table;
    devserver::Fault put;
    put.method = "PUT";
    put.path = "/part";
    put.times = 2;
    table.add(put);
    devserver::Fault any;
    any.path = "/api/";
    table.add(any);
    EXPECT_FALSE(table.take("GET", "/admin/x"));
    EXPECT_EQ(table.take("PUT", "/api/recordings/upload/u/part")->method, "PUT");
    EXPECT_EQ(table.take("GET", "/api/me")->method, "*");
    EXPECT_EQ(table.take("PUT", "/api/recordings/upload/u/part")->method, "PUT");
    EXPECT_FALSE(table.take("PUT", "/api/recordings/upload/u/part"));
    EXPECT_EQ(table.size(), 0u);
}

}  // namespace
}  // namespace vell::test
