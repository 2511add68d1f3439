#pragma once
// Whether a user is signed in and who it is. The launch check of a stored session, sign-in
// with an optional second factor, the six-hourly session refresh and sign-out all drive
// `phase`; any rejected session ends in a local sign-out. Main executor only.
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "app/legacy_adoption_window.h"
#include "base/executor.h"
#include "base/published.h"
#include "service/account_api.h"

namespace vell::app {

class AppState {
public:
    enum class Phase { launching = 0, signedOut = 1, mfaRequired = 2, signedIn = 3 };

    static constexpr double kKeepAliveSeconds = 21'600;  // 6 hours
    // A launch check that failed for another reason than a rejection is retried, first
    // after 30 s, doubling up to 15 minutes, while the session is still held.
    static constexpr double kFirstRetrySeconds = 30;
    static constexpr double kLongestRetrySeconds = 900;

    // Returns whether the adoption was stored; the one-time decision is kept open otherwise.
    using AdoptUnowned = std::function<bool(const std::string& accountID)>;
    template <class T>
    using Done = std::function<void(Expected<T, service::APIError>)>;

    // adoptUnowned gives the pending recordings without an owner to the account.
    AppState(service::AccountApi& api, UserDefaults& defaults, AdoptUnowned adoptUnowned, Executor& main);
    ~AppState();
    AppState(const AppState&) = delete;
    AppState& operator=(const AppState&) = delete;

    Published<Phase> phase{Phase::launching};
    Published<std::optional<service::Me>> me;

    bool launchSessionStillActive() const { return launchSessionStillActive_; }
    // The last sign-in could not store its session: it lasts only as long as this process.
    bool sessionNotStored() const { return sessionNotStored_; }
    const LegacyAdoptionWindow& legacyAdoption() const { return legacyAdoption_; }
    bool keepAliveRunning() const { return keepAlive_.active(); }
    // Who new recordings belong to: the signed-in user, or while the launch check of a
    // stored session has not succeeded yet, the account that session was opened for.
    std::optional<std::string> accountID() const;

    // The launch check; runs once however often it is asked for. `settled` runs when its
    // first answer is in: nothing when signed in or out by it, the error when the session
    // was kept because the service could not tell (it is tried again later).
    using Settled = std::function<void(const std::optional<service::APIError>&)>;
    void bootstrap(Settled settled = {});
    void signIn(const std::string& email, const std::string& password, Done<service::SignInStep> done);
    void verifyMfa(const service::MfaAnswer& answer, Done<Unit> done);
    // Leaves the second-factor form.
    void cancelMfa();
    // Tells the service, then signs out here whatever it answered.
    void signOut(std::function<void()> done = {});
    void localSignOut();
    // Any request answered with a rejected session.
    void handleUnauthenticated();

private:
    void checkLaunchSession();
    void becomeSignedIn(const service::Me& user);
    // After the credentials (and any second factor) were accepted: fetch the user, keep
    // the session, and report the outcome.
    void finishSignIn(Done<Unit> done);
    void keepAliveTick();
    void reportSettled(const std::optional<service::APIError>& error);
    template <class F>
    auto guarded(F f);

    service::AccountApi& api_;
    UserDefaults& defaults_;
    AdoptUnowned adoptUnowned_;
    Settled settled_;
    Executor& main_;
    LegacyAdoptionWindow legacyAdoption_;
    bool launchSessionStillActive_ = false;
    bool sessionNotStored_ = false;
    bool bootstrapped_ = false;
    double nextRetrySeconds_ = kFirstRetrySeconds;
    TimerHandle keepAlive_;
    TimerHandle retry_;
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace vell::app
