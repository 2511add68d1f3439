#include <gtest/gtest.h>

#include <deque>

#include "app/app_state.h"
#include "base/manual_executor.h"
#include "base/preference_keys.h"
#include "tests/support/temp_home.h"

namespace vell::app {
namespace {

using service::APIError;
using service::Me;
using Phase = AppState::Phase;

// Answers each request with the next queued result, delivered on the main executor.
class FakeAccountApi final : public service::AccountApi {
public:
    explicit FakeAccountApi(Executor& main) : main_(main) {}
    bool hasSession() const override { return session; }
    void fetchMe(Done<Me> done) override {
        ++meRequests;
        auto result = meResults.empty() ? Expected<Me, APIError>(unexpected(APIError::transport(7, "offline", true)))
                                         : meResults.front();
        if (!meResults.empty()) meResults.pop_front();
        main_.post([done, result] { done(result); });
    }
    void signIn(const std::string&, const std::string&, Done<service::SignInStep> done) override {
        auto result = signInResult;
        main_.post([done, result] { done(result); });
    }
    void verifyMfa(const service::MfaAnswer&, Done<Unit> done) override {
        auto result = mfaResult;
        main_.post([done, result] { done(result); });
    }
    void logout(Done<Unit> done) override {
        ++logouts;
        main_.post([done] { done(unexpected(APIError::transport(7, "offline", true))); });
    }
    bool saveSession() override {
        ++saves;
        return true;
    }
    void clearSession() override {
        session = false;
        ++clears;
    }
    void setIdentity(const std::optional<Me>& me) override { identity = me; }

    bool session = true;
    std::deque<Expected<Me, APIError>> meResults;
    Expected<service::SignInStep, APIError> signInResult = service::SignInStep::signedIn;
    Expected<Unit, APIError> mfaResult = Unit{};
    int meRequests = 0, logouts = 0, saves = 0, clears = 0;
    std::optional<Me> identity;

private:
    Executor& main_;
};

const Me kAda{"u-1", "ada@example.com", "member", false};

class AppStateTest : public ::testing::Test {
protected:
    AppStateTest() : exec(clock), api(exec) {}
    AppState& make() {
        state = std::make_unique<AppState>(api, home.defaults(), [this](const std::string& id) {
            adopted.push_back(id);
            return true;
        }, exec);
        return *state;
    }
    test::TempHome home;
    ManualClock clock;
    ManualExecutor exec;
    FakeAccountApi api;
    std::vector<std::string> adopted;
    std::unique_ptr<AppState> state;
};

TEST_F(AppStateTest, NoStoredSessionMeansSignedOutWithoutAsking) {
    api.session = false;
    auto& s = make();
    EXPECT_FALSE(s.launchSessionStillActive());
    s.bootstrap();
    exec.runPending();
    EXPECT_EQ(s.phase.get(), Phase::signedOut);
    EXPECT_EQ(api.meRequests, 0);
}

TEST_F(AppStateTest, LaunchCheckSignsInOnceAdoptsLegacyRecordingsAndKeepsTheSessionAlive) {
    api.meResults = {kAda, Me{"u-1", "ada@new.example", "member", true}};
    auto& s = make();
    EXPECT_TRUE(s.launchSessionStillActive());
    EXPECT_EQ(s.phase.get(), Phase::launching);
    s.bootstrap();
    s.bootstrap();  // the menu-bar label was rebuilt
    exec.runPending();
    EXPECT_EQ(api.meRequests, 1);
    EXPECT_EQ(s.phase.get(), Phase::signedIn);
    EXPECT_EQ(s.me.get(), kAda);
    EXPECT_EQ(api.identity, kAda);
    EXPECT_FALSE(s.launchSessionStillActive());
    EXPECT_EQ(adopted, std::vector<std::string>{"u-1"});
    EXPECT_FALSE(s.legacyAdoption().isOpen());
    EXPECT_EQ(home.defaults().boolValue(prefs::kOwnershipAdoptionDecided), true);
    EXPECT_TRUE(s.keepAliveRunning());

    exec.advance(21'599);
    EXPECT_EQ(api.meRequests, 1);
    exec.advance(1);
    EXPECT_EQ(api.meRequests, 2);
    EXPECT_TRUE(s.me.get()->isAdmin);

    // A failed refresh keeps everything; a rejected one signs out and ends the refresh.
    api.meResults = {unexpected(APIError::transport(28, "timed out", false))};
    exec.advance(21'600);
    EXPECT_EQ(s.phase.get(), Phase::signedIn);
    api.meResults = {unexpected(APIError::http(401, std::nullopt, std::nullopt))};
    exec.advance(21'600);
    EXPECT_EQ(s.phase.get(), Phase::signedOut);
    EXPECT_FALSE(s.me.get());
    EXPECT_FALSE(s.keepAliveRunning());
    EXPECT_EQ(api.clears, 1);
    int requests = api.meRequests;
    exec.advance(3 * 21'600);
    EXPECT_EQ(api.meRequests, requests);
}

TEST_F(AppStateTest, RejectedLaunchSessionSignsOutAndClearsIt) {
    for (auto rejection : {APIError::http(401, std::nullopt, std::nullopt), APIError::http(403, "unauthorized", std::nullopt)}) {
        api.session = true;
        api.clears = 0;
        api.meResults = {unexpected(rejection)};
        auto& s = make();
        s.bootstrap();
        exec.runPending();
        EXPECT_EQ(s.phase.get(), Phase::signedOut);
        EXPECT_FALSE(s.launchSessionStillActive());
        EXPECT_EQ(api.clears, 1);
        EXPECT_FALSE(api.session);
        EXPECT_TRUE(adopted.empty());
        EXPECT_TRUE(s.legacyAdoption().isOpen());
    }
}

TEST_F(AppStateTest, OfflineLaunchKeepsTheSessionAndRetriesLater) {
    api.meResults = {unexpected(APIError::transport(28, "timed out", false)), unexpected(APIError::http(502, std::nullopt, std::nullopt)),
                     kAda};
    auto& s = make();
    s.bootstrap();
    exec.runPending();
    EXPECT_EQ(s.phase.get(), Phase::launching);
    EXPECT_TRUE(api.session);
    EXPECT_EQ(api.clears, 0);
    EXPECT_FALSE(s.launchSessionStillActive());
    exec.advance(30);
    EXPECT_EQ(api.meRequests, 2);
    EXPECT_EQ(s.phase.get(), Phase::launching);
    exec.advance(59);
    EXPECT_EQ(api.meRequests, 2);
    exec.advance(1);  // the second wait is twice as long
    EXPECT_EQ(s.phase.get(), Phase::signedIn);
}

TEST_F(AppStateTest, SignInWithSecondFactorThenSignOut) {
    api.session = false;
    home.defaults().set(prefs::kOwnershipAdoptionDecided, true);  // decided on an earlier run
    auto& s = make();
    s.bootstrap();
    exec.runPending();
    ASSERT_EQ(s.phase.get(), Phase::signedOut);

    api.signInResult = service::SignInStep::mfaRequired;
    std::optional<Expected<service::SignInStep, APIError>> step;
    s.signIn("ada@example.com", "pw", [&](auto r) { step = r; });
    exec.runPending();
    ASSERT_TRUE(step && *step);
    EXPECT_EQ(s.phase.get(), Phase::mfaRequired);

    // A wrong code keeps the form; the right one signs in and stores the session.
    api.mfaResult = unexpected(APIError::http(400, "invalid_code", std::nullopt));
    std::optional<Expected<Unit, APIError>> verified;
    s.verifyMfa({std::string("000000"), std::nullopt}, [&](auto r) { verified = r; });
    exec.runPending();
    ASSERT_TRUE(verified);
    EXPECT_FALSE(*verified);
    EXPECT_EQ(verified->error().description(Language::English), "Invalid code.");
    EXPECT_EQ(s.phase.get(), Phase::mfaRequired);

    api.session = true;
    api.mfaResult = Unit{};
    api.meResults = {kAda};
    s.verifyMfa({std::string("123456"), std::nullopt}, [&](auto r) { verified = r; });
    exec.runPending();
    EXPECT_TRUE(*verified);
    EXPECT_EQ(s.phase.get(), Phase::signedIn);
    EXPECT_EQ(api.saves, 1);
    EXPECT_TRUE(adopted.empty());  // the adoption was decided before

    bool signedOut = false;
    s.signOut([&] { signedOut = true; });
    exec.runPending();
    EXPECT_TRUE(signedOut);
    EXPECT_EQ(api.logouts, 1);
    EXPECT_EQ(s.phase.get(), Phase::signedOut);
    EXPECT_FALSE(api.identity);
    EXPECT_FALSE(api.session);
}

TEST_F(AppStateTest, ExpiredSecondFactorGoesBackToSignedOut) {
    api.session = false;
    auto& s = make();
    api.signInResult = service::SignInStep::mfaRequired;
    s.signIn("a", "b", {});
    exec.runPending();
    api.mfaResult = unexpected(APIError::http(400, "no_pending_mfa", std::nullopt));
    s.verifyMfa({std::string("1"), std::nullopt}, {});
    exec.runPending();
    EXPECT_EQ(s.phase.get(), Phase::signedOut);

    s.signIn("a", "b", {});
    exec.runPending();
    ASSERT_EQ(s.phase.get(), Phase::mfaRequired);
    s.cancelMfa();
    EXPECT_EQ(s.phase.get(), Phase::signedOut);
}

TEST_F(AppStateTest, RecordingsMadeBeforeTheLaunchCheckAnswersBelongToTheStoredSessionsAccount) {
    api.meResults = {kAda};
    auto& first = make();
    EXPECT_EQ(first.accountID(), std::nullopt);  // a session nobody has checked yet
    std::optional<std::optional<APIError>> settled;
    first.bootstrap([&](const std::optional<APIError>& e) { settled = e; });
    exec.runPending();
    ASSERT_TRUE(settled);
    EXPECT_FALSE(*settled);
    EXPECT_EQ(first.accountID(), "u-1");

    // The next launch is offline: the session is kept and new recordings are still Ada's.
    state.reset();
    home.reloadDefaults();
    auto& offline = make();
    EXPECT_EQ(offline.accountID(), "u-1");
    settled.reset();
    offline.bootstrap([&](const std::optional<APIError>& e) { settled = e; });
    exec.runPending();
    ASSERT_TRUE(settled && *settled);
    EXPECT_EQ(offline.phase.get(), Phase::launching);
    EXPECT_EQ(offline.accountID(), "u-1");

    // Signing out forgets whose session it was.
    offline.localSignOut();
    EXPECT_EQ(offline.accountID(), std::nullopt);
    api.session = true;
    state.reset();
    home.reloadDefaults();
    EXPECT_EQ(make().accountID(), std::nullopt);
}

}  // namespace
}  // namespace vell::app
