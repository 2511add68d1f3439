// Signing in and out against the reference service; the cookie snapshot across clients.
#include <sys/stat.h>

#include "session/session_file_store.h"
#include "tests/service/http_fixture.h"

namespace vell::service::testing {
namespace {

TEST_F(ServiceTest, SignInSurvivesANewClientAndSignOutForgetsIt) {
    EXPECT_FALSE(account->hasSession());
    auto wrong = account->signInNow(kEmail, "wrong");
    ASSERT_FALSE(wrong);
    EXPECT_EQ(wrong.error().description(Language::English), "Wrong email or password.");
    EXPECT_EQ(wrong.error().description(Language::Spanish), "Email o contraseña incorrectos.");

    signIn();
    EXPECT_TRUE(account->hasSession());
    account->saveSession();
    struct stat st {};
    ASSERT_EQ(::stat(session::SessionFileStore::filePath(kCookieSnapshotKey).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    {
        APIClient restarted(server->url());
        AccountClient again(restarted);
        EXPECT_TRUE(again.hasSession());
        auto me = again.fetchMeNow();
        ASSERT_TRUE(me) << me.error().description(Language::English);
        EXPECT_EQ(me->email, kEmail);
        EXPECT_FALSE(me->id.empty());
        ASSERT_TRUE(again.logoutNow());
        again.clearSession();
        EXPECT_FALSE(again.hasSession());
    }
    APIClient afterLogout(server->url());
    EXPECT_FALSE(afterLogout.hasSessionCookie());
    // The first client still holds the cookie, but the service ended that session.
    auto stale = account->fetchMeNow();
    ASSERT_FALSE(stale);
    EXPECT_TRUE(stale.error().isSessionRejection());
}

TEST_F(ServiceTest, TwoStepSignInWithABackupCode) {
    server->admin("POST", "admin/users",
                  nlohmann::json{{"email", "two@vell.test"}, {"password", "pw"}, {"totpSecret", "JBSWY3DPEHPK3PXP"},
                                 {"backupCodes", {"1111-2222"}}});
    auto step = account->signInNow("two@vell.test", "pw");
    ASSERT_TRUE(step);
    EXPECT_EQ(*step, SignInStep::mfaRequired);
    EXPECT_FALSE(account->hasSession());
    auto wrong = account->verifyMfaNow({.backupCode = "9999-9999"});
    ASSERT_FALSE(wrong);
    EXPECT_EQ(wrong.error().description(Language::English), "Invalid backup code.");
    auto right = account->verifyMfaNow({.backupCode = "1111-2222"});
    ASSERT_TRUE(right) << right.error().description(Language::English);
    EXPECT_TRUE(account->hasSession());
    EXPECT_EQ(account->fetchMeNow()->email, "two@vell.test");
}

TEST_F(ServiceTest, ExpiredSessionsAndRedirectsReadAsSignedOut) {
    signIn();
    server->addFault({{"method", "GET"}, {"path", "api/me"}, {"action", "status"}, {"status", 302},
                      {"headers", {{"Location", "/login"}}}, {"body", {{"error", "invalid_credentials"}}}});
    auto redirected = account->fetchMeNow();
    ASSERT_FALSE(redirected);
    EXPECT_EQ(redirected.error().kind, APIError::Kind::unauthenticated);
    ASSERT_TRUE(account->fetchMeNow());  // the fault applied once; redirects were not followed
    server->expireSessions(kEmail);
    auto expired = account->fetchMeNow();
    ASSERT_FALSE(expired);
    EXPECT_EQ(expired.error().description(Language::English), "Your session expired. Sign in again.");
}

TEST_F(ServiceTest, ErrorBodiesFromTheWire) {
    signIn();
    server->addFault({{"path", "api/me"}, {"action", "status"}, {"status", 422},
                      {"body", {{"ok", false}, {"error", "too_long"}, {"message", ""}}}});
    EXPECT_EQ(account->fetchMeNow().error().description(Language::English), "This part is too long.");
    server->addFault({{"path", "api/me"}, {"action", "status"}, {"status", 500}, {"body", "<html>oops</html>"}});
    EXPECT_EQ(account->fetchMeNow().error().description(Language::Spanish), "Error del servidor (500).");
}

}  // namespace
}  // namespace vell::service::testing
