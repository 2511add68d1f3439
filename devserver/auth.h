#pragma once
// Accounts, sign-in with an optional second factor, and sessions.
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "devserver/store.h"

namespace vell::devserver {

inline constexpr int64_t kSessionLifetimeMs = 30LL * 24 * 3600 * 1000;
inline constexpr int64_t kMfaLifetimeMs = 5LL * 60 * 1000;
inline constexpr int kMfaAttempts = 5;

struct NewUser {
    std::string email;
    std::string password;
    std::string totpSecret;  // base32, optional
    std::vector<std::string> backupCodes;
    std::string role = "user";
};

class Auth {
public:
    explicit Auth(Store& store) : store_(store) {}

    // Creates the account or replaces its password, factors and role. Returns its id, or
    // nothing when the email is empty or the TOTP secret is not base32.
    std::optional<std::string> upsertUser(const NewUser& user);

    struct Login {
        enum class Outcome { SignedIn, MfaRequired, InvalidCredentials } outcome;
        std::string token;  // the session cookie, or the pending-MFA cookie
    };
    Login login(const std::string& email, const std::string& password);

    struct Mfa {
        enum class Outcome { SignedIn, InvalidCode, InvalidBackupCode, NoPendingMfa } outcome;
        std::string sessionToken;
    };
    Mfa verifyCode(const std::string& mfaToken, const std::string& code);
    Mfa verifyBackupCode(const std::string& mfaToken, const std::string& backupCode);

    // The account of a live session.
    std::optional<Account> authenticate(const std::string& sessionToken) const;
    void logout(const std::string& sessionToken);
    // Expires every session of the account; returns how many.
    int expireSessions(const std::string& email);

    static std::string normalizeEmail(std::string email);
    // What upsertUser records as Account::setupDigest for this user.
    static std::string setupDigest(const NewUser& user);

private:
    struct PendingMfa {
        std::string email;
        int64_t expiresAtMs = 0;
        int attemptsLeft = kMfaAttempts;
    };
    std::string openSession(const std::string& email);
    // The pending sign-in of the token, or nothing when absent or expired.
    std::optional<PendingMfa> pending(const std::string& mfaToken);
    // Counts a failed attempt; the pending sign-in ends after kMfaAttempts.
    void failedAttempt(const std::string& mfaToken);

    Store& store_;
    std::mutex mfaMutex_;
    std::map<std::string, PendingMfa> pendingMfa_;  // in memory: a restart asks to sign in again
};

}  // namespace vell::devserver
