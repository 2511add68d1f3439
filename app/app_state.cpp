#include "app/app_state.h"

#include <algorithm>
#include <utility>

#include "base/log.h"
#include "base/preference_keys.h"

namespace vell::app {

namespace {
const log::Logger kLog("AppState");
}

AppState::AppState(service::AccountApi& api, UserDefaults& defaults, AdoptUnowned adoptUnowned, Executor& main)
    : api_(api), defaults_(defaults), adoptUnowned_(std::move(adoptUnowned)), main_(main), legacyAdoption_(defaults) {
    launchSessionStillActive_ = api_.hasSession();
}

AppState::~AppState() {
    keepAlive_.cancel();
    retry_.cancel();
}

// Completions may arrive after this object is gone (a request outliving a test or a
// window); they are dropped then.
template <class F>
auto AppState::guarded(F f) {
    std::weak_ptr<int> alive = alive_;
    return [alive, f = std::move(f)](auto&&... args) {
        if (!alive.expired()) f(std::forward<decltype(args)>(args)...);
    };
}

std::optional<std::string> AppState::accountID() const {
    if (auto user = me.get()) return user->id;
    if (phase.get() == Phase::launching && api_.hasSession()) return defaults_.stringValue(prefs::kSessionAccountID);
    return std::nullopt;
}

void AppState::bootstrap(Settled settled) {
    if (bootstrapped_) return;
    bootstrapped_ = true;
    settled_ = std::move(settled);
    checkLaunchSession();
}

void AppState::reportSettled(const std::optional<service::APIError>& error) {
    if (auto settled = std::exchange(settled_, nullptr)) settled(error);
}

void AppState::checkLaunchSession() {
    if (!api_.hasSession()) {
        launchSessionStillActive_ = false;
        phase.set(Phase::signedOut);
        return reportSettled(std::nullopt);
    }
    api_.fetchMe(guarded([this](Expected<service::Me, service::APIError> result) {
        if (phase.get() != Phase::launching) return reportSettled(std::nullopt);  // signed in or out meanwhile
        launchSessionStillActive_ = false;
        if (result) {
            becomeSignedIn(*result);
            return reportSettled(std::nullopt);
        }
        if (result.error().isSessionRejection()) {
            kLog.info("stored session rejected");
            localSignOut();
            return reportSettled(std::nullopt);
        }
        reportSettled(result.error());
        // Offline or server trouble: keep the session, keep recording, try again later.
        kLog.error("launch session check failed: " + result.error().description(Language::English));
        double delay = nextRetrySeconds_;
        nextRetrySeconds_ = std::min(nextRetrySeconds_ * 2, kLongestRetrySeconds);
        retry_ = main_.postAfter(delay, guarded([this] {
            if (phase.get() == Phase::launching) checkLaunchSession();
        }));
    }));
}

void AppState::becomeSignedIn(const service::Me& user) {
    retry_.cancel();
    if (defaults_.stringValue(prefs::kSessionAccountID) != user.id) defaults_.set(prefs::kSessionAccountID, user.id);
    me.set(user);
    phase.set(Phase::signedIn);
    api_.setIdentity(user);
    if (legacyAdoption_.isOpen()) {
        // Recorded as decided only once the pending list holds the owners: otherwise a
        // full disk would leave the recordings unowned for good.
        if (!adoptUnowned_ || adoptUnowned_(user.id)) legacyAdoption_.close();
    }
    launchSessionStillActive_ = false;
    keepAlive_.cancel();
    keepAlive_ = main_.repeat(kKeepAliveSeconds, guarded([this] { keepAliveTick(); }));
}

void AppState::keepAliveTick() {
    if (!api_.hasSession()) return;
    api_.fetchMe(guarded([this](Expected<service::Me, service::APIError> result) {
        if (phase.get() != Phase::signedIn) return;
        if (result) {
            me.set(*result);
            api_.setIdentity(*result);
        } else if (result.error().isSessionRejection()) {
            localSignOut();
        } else {
            kLog.error("session refresh failed: " + result.error().description(Language::English));
        }
    }));
}

void AppState::signIn(const std::string& email, const std::string& password, Done<service::SignInStep> done) {
    api_.signIn(email, password, guarded([this, done](Expected<service::SignInStep, service::APIError> step) {
        if (!step) {
            if (done) done(step);
            return;
        }
        if (*step == service::SignInStep::mfaRequired) {
            phase.set(Phase::mfaRequired);
            if (done) done(step);
            return;
        }
        finishSignIn([done](Expected<Unit, service::APIError> result) {
            if (!done) return;
            if (result) {
                done(service::SignInStep::signedIn);
            } else {
                done(unexpected(result.error()));
            }
        });
    }));
}

void AppState::verifyMfa(const service::MfaAnswer& answer, Done<Unit> done) {
    api_.verifyMfa(answer, guarded([this, done](Expected<Unit, service::APIError> result) {
        if (!result) {
            // A wrong code leaves the form open; an expired verification starts over.
            if (result.error().isSessionRejection() || result.error().code == "no_pending_mfa") localSignOut();
            if (done) done(result);
            return;
        }
        finishSignIn(done);
    }));
}

void AppState::finishSignIn(Done<Unit> done) {
    api_.fetchMe(guarded([this, done](Expected<service::Me, service::APIError> user) {
        if (!user) {
            if (user.error().isSessionRejection()) localSignOut();
            if (done) done(unexpected(user.error()));
            return;
        }
        sessionNotStored_ = !api_.saveSession();
        becomeSignedIn(*user);
        if (done) done(Unit{});
    }));
}

void AppState::cancelMfa() {
    if (phase.get() == Phase::mfaRequired) localSignOut();
}

void AppState::signOut(std::function<void()> done) {
    api_.logout(guarded([this, done](Expected<Unit, service::APIError> result) {
        if (!result) kLog.error("logout failed: " + result.error().description(Language::English));
        localSignOut();
        if (done) done();
    }));
}

void AppState::localSignOut() {
    keepAlive_.cancel();
    keepAlive_ = {};
    retry_.cancel();
    me.set(std::nullopt);
    phase.set(Phase::signedOut);
    launchSessionStillActive_ = false;
    api_.setIdentity(std::nullopt);
    api_.clearSession();
    defaults_.remove(prefs::kSessionAccountID);
    legacyAdoption_.reload();
}

void AppState::handleUnauthenticated() { localSignOut(); }

}  // namespace vell::app
