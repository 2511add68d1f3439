// Sign-in, second factor and sessions against the running reference service.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "devserver/totp.h"
#include "tests/devserver/devserver_process.h"

namespace vell::test {
namespace {

namespace totp = devserver::totp;

constexpr const char* kSecret = "JBSWY3DPEHPK3PXP";

int64_t unixNow() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// A moment well inside a 30 s step, so the server checks the code in the same step.
int64_t settledNow() {
    while (unixNow() % 30 >= 27) std::this_thread::sleep_for(std::chrono::milliseconds(200));
    return unixNow();
}

TEST(DevServerAuth, DemoAccountSignsInReadsMeAndSignsOut) {
    DevServerProcess server;
    Api api(server);
    EXPECT_EQ(api.get("/api/me").status, 401);

    auto login = api.login("Demo@Vell.Local", "vell-demo");
    ASSERT_EQ(login.status, 200);
    EXPECT_EQ(login.body, (nlohmann::json{{"ok", true}, {"mfaRequired", false}}));
    const std::string token = login.cookie("vell_session");
    EXPECT_EQ(token.size(), 64u);
    EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
    auto setCookie = login.headers.find("Set-Cookie")->second;
    EXPECT_NE(setCookie.find("Path=/"), std::string::npos);
    EXPECT_NE(setCookie.find("HttpOnly"), std::string::npos);
    EXPECT_NE(setCookie.find("Max-Age=2592000"), std::string::npos);

    auto me = api.get("/api/me");
    ASSERT_EQ(me.status, 200);
    EXPECT_EQ(me.body["email"], "demo@vell.local");
    EXPECT_EQ(me.body["role"], "user");
    EXPECT_EQ(me.body["isAdmin"], false);
    EXPECT_TRUE(me.body["id"].is_string());

    // The session survives a crash of the service.
    server.restart();
    EXPECT_EQ(api.get("/api/me").status, 200);

    auto logout = api.postEmpty("/api/logout");
    EXPECT_EQ(logout.status, 200);
    EXPECT_EQ(logout.body, (nlohmann::json{{"ok", true}}));
    // The old cookie no longer opens anything, even when a client keeps sending it.
    api.cookies["vell_session"] = token;
    auto after = api.get("/api/me");
    EXPECT_EQ(after.status, 401);
    EXPECT_EQ(after.body, (nlohmann::json{{"ok", false}, {"error", "unauthorized"}}));
    EXPECT_EQ(api.postEmpty("/api/logout").status, 401);
}

TEST(DevServerAuth, RejectsWrongCredentialsAndBadBodies) {
    DevServerProcess server({"--user", "ana@example.com:s3cret"});
    Api api(server);
    for (auto [email, password] : {std::pair{"ana@example.com", "wrong"}, {"nobody@example.com", "s3cret"},
                                   {"demo@vell.local", "vell-demo"}}) {
        auto reply = api.login(email, password);
        EXPECT_EQ(reply.status, 401) << email;
        EXPECT_EQ(reply.body, (nlohmann::json{{"ok", false}, {"error", "invalid_credentials"}})) << email;
        EXPECT_TRUE(reply.cookie("vell_session").empty());
    }
    for (const auto& body : {nlohmann::json{{"email", "ana@example.com"}}, nlohmann::json{{"password", "x"}},
                             nlohmann::json{{"email", ""}, {"password", "x"}}, nlohmann::json::array()}) {
        auto reply = api.post("/api/auth/login", body);
        EXPECT_EQ(reply.status, 400) << body;
        EXPECT_EQ(reply.body["error"], "missing_fields");
    }
    auto client = server.client();
    auto garbage = client.Post("/api/auth/login", "{not json", "application/json");
    ASSERT_TRUE(garbage);
    EXPECT_EQ(garbage->status, 400);
    EXPECT_EQ(api.login("ana@example.com", "s3cret").status, 200);
}

TEST(DevServerAuth, TotpAcceptsNeighbourWindowsOnly) {
    DevServerProcess server({"--user", std::string("mfa@example.com:pw:") + kSecret});
    const std::string key = *totp::decodeBase32(kSecret);

    auto codeFor = [&](int stepOffset) { return totp::codeAt(key, settledNow() + stepOffset * 30); };
    auto tryCode = [&](int stepOffset) {
        Api api(server);
        auto login = api.login("mfa@example.com", "pw");
        EXPECT_EQ(login.body, (nlohmann::json{{"ok", true}, {"mfaRequired", true}}));
        EXPECT_TRUE(login.cookie("vell_session").empty());
        EXPECT_FALSE(login.cookie("vell_mfa").empty());
        auto reply = api.post("/api/auth/mfa", {{"code", codeFor(stepOffset)}});
        if (reply.status == 200) {
            EXPECT_EQ(api.get("/api/me").status, 200);
        }
        return reply;
    };
    for (int offset : {-1, 0, 1}) {
        auto reply = tryCode(offset);
        EXPECT_EQ(reply.status, 200) << offset;
        EXPECT_EQ(reply.body, (nlohmann::json{{"ok", true}})) << offset;
    }
    for (int offset : {-2, 2}) {
        auto reply = tryCode(offset);
        EXPECT_EQ(reply.status, 400) << offset;
        EXPECT_EQ(reply.body["error"], "invalid_code") << offset;
    }
}

TEST(DevServerAuth, MfaNeedsAPendingSignInAndEndsAfterRepeatedFailures) {
    DevServerProcess server({"--user", std::string("mfa@example.com:pw:") + kSecret});
    const std::string key = *totp::decodeBase32(kSecret);
    Api api(server);
    auto none = api.post("/api/auth/mfa", {{"code", "123456"}});
    EXPECT_EQ(none.status, 400);
    EXPECT_EQ(none.body["error"], "no_pending_mfa");

    ASSERT_EQ(api.login("mfa@example.com", "pw").status, 200);
    EXPECT_EQ(api.post("/api/auth/mfa", nlohmann::json::object()).body["error"], "missing_fields");
    for (int i = 0; i < 5; ++i) EXPECT_EQ(api.post("/api/auth/mfa", {{"code", "000000"}}).body["error"], "invalid_code");
    // Five wrong guesses end the pending sign-in: even the right code needs a new login.
    auto late = api.post("/api/auth/mfa", {{"code", totp::codeAt(key, settledNow())}});
    EXPECT_EQ(late.body["error"], "no_pending_mfa");
    EXPECT_EQ(api.get("/api/me").status, 401);
}

TEST(DevServerAuth, BackupCodesWorkOnceAcrossRestarts) {
    DevServerProcess server(
        {"--user", std::string("mfa@example.com:pw:") + kSecret, "--backup-codes", "mfa@example.com:aaaa-1111,bbbb-2222"});
    Api api(server);
    ASSERT_EQ(api.login("mfa@example.com", "pw").status, 200);
    auto wrong = api.post("/api/auth/mfa", {{"backupCode", "cccc-3333"}});
    EXPECT_EQ(wrong.status, 400);
    EXPECT_EQ(wrong.body["error"], "invalid_backup_code");
    EXPECT_EQ(api.post("/api/auth/mfa", {{"backupCode", "aaaa-1111"}}).status, 200);
    EXPECT_EQ(api.get("/api/me").status, 200);

    server.restart();
    Api again(server);
    ASSERT_EQ(again.login("mfa@example.com", "pw").status, 200);
    EXPECT_EQ(again.post("/api/auth/mfa", {{"backupCode", "aaaa-1111"}}).body["error"], "invalid_backup_code");
    EXPECT_EQ(again.post("/api/auth/mfa", {{"backupCode", "bbbb-2222"}}).status, 200);
}

TEST(DevServerAuth, ExpiredSessionsAnswerUnauthorizedEverywhere) {
    DevServerProcess server({"--user", "ana@example.com:pw", "--user", "bob@example.com:pw"});
    Api ana(server), bob(server), anaPhone(server);
    ASSERT_EQ(ana.login("ana@example.com", "pw").status, 200);
    ASSERT_EQ(anaPhone.login("ana@example.com", "pw").status, 200);
    ASSERT_EQ(bob.login("bob@example.com", "pw").status, 200);

    auto expired = ana.admin("POST", "/admin/sessions/expire", {{"email", "ana@example.com"}});
    EXPECT_EQ(expired.body["expired"], 2);
    for (Api* api : {&ana, &anaPhone}) {
        EXPECT_EQ(api->get("/api/me").status, 401);
        EXPECT_EQ(api->get("/api/insurance/requests").status, 401);
        auto start = api->start("x.aac", 10);
        EXPECT_EQ(start.status, 401);
        EXPECT_EQ(start.body["error"], "unauthorized");
    }
    EXPECT_EQ(bob.get("/api/me").status, 200);
    Api stranger(server);
    stranger.cookies["vell_session"] = std::string(64, 'a');
    EXPECT_EQ(stranger.get("/api/me").status, 401);
}

TEST(DevServerTotp, MatchesTheRfcVectorsAndBase32) {
    // RFC 6238 appendix B, SHA-1 key "12345678901234567890", eight digits.
    const std::string key = "12345678901234567890";
    EXPECT_EQ(totp::code(key, 59 / 30, 8), "94287082");
    EXPECT_EQ(totp::code(key, 1111111109 / 30, 8), "07081804");
    EXPECT_EQ(totp::code(key, 1234567890 / 30, 8), "89005924");
    EXPECT_EQ(totp::code(key, 20000000000 / 30, 8), "65353130");
    EXPECT_EQ(totp::codeAt(key, 59), "287082");
    EXPECT_EQ(*totp::decodeBase32("GEZDGNBVGY3TQOJQGEZDGNBVGY3TQOJQ"), key);
    EXPECT_EQ(*totp::decodeBase32("gezd gnbv-gy3t qojq gezd gnbv gy3t qojq===="), key);
    EXPECT_FALSE(totp::decodeBase32("not base32!"));
    EXPECT_FALSE(totp::decodeBase32(""));
    EXPECT_TRUE(totp::verify(key, totp::codeAt(key, 1000), 1000 + 30));
    EXPECT_FALSE(totp::verify(key, totp::codeAt(key, 1000), 1000 + 60));
    EXPECT_FALSE(totp::verify(key, "12345", 1000));
}

}  // namespace
}  // namespace vell::test
