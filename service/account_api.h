#pragma once
// What the application state needs from the service: the signed-in user, sign-in with an
// optional second factor, sign-out, and the stored session. Completions run on the main
// executor. The real implementation sits on the API client; tests use a fake.
#include <functional>
#include <optional>
#include <string>

#include "base/expected.h"
#include "service/api_error.h"

namespace vell::service {

struct Me {
    std::string id;
    std::string email;
    std::string role;
    bool isAdmin = false;
    bool operator==(const Me&) const = default;
};

enum class SignInStep { signedIn, mfaRequired };

// A second factor: a time-based code or a one-time backup code.
struct MfaAnswer {
    std::optional<std::string> code;
    std::optional<std::string> backupCode;
};

class AccountApi {
public:
    template <class T>
    using Done = std::function<void(Expected<T, APIError>)>;

    virtual ~AccountApi() = default;
    // A session cookie is held (restored from storage or set by a sign-in).
    virtual bool hasSession() const = 0;
    virtual void fetchMe(Done<Me> done) = 0;                                                     // GET api/me
    virtual void signIn(const std::string& email, const std::string& password, Done<SignInStep> done) = 0;  // api/auth/login
    virtual void verifyMfa(const MfaAnswer& answer, Done<Unit> done) = 0;                         // api/auth/mfa
    virtual void logout(Done<Unit> done) = 0;                                                     // api/logout
    // Stores the cookie snapshot so that a restart stays signed in; false when it could
    // not be stored anywhere.
    virtual bool saveSession() = 0;
    // Forgets the cookies here and in session storage.
    virtual void clearSession() = 0;
    // The signed-in user's identity, for requests that carry it.
    virtual void setIdentity(const std::optional<Me>& me) = 0;
};

}  // namespace vell::service
