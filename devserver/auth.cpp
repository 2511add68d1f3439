#include "devserver/auth.h"

#include <algorithm>
#include <cctype>

#include "devserver/crypto.h"
#include "devserver/totp.h"

namespace vell::devserver {

std::string Auth::normalizeEmail(std::string email) {
    auto notSpace = [](unsigned char c) { return !std::isspace(c); };
    email.erase(email.begin(), std::find_if(email.begin(), email.end(), notSpace));
    email.erase(std::find_if(email.rbegin(), email.rend(), notSpace).base(), email.end());
    std::transform(email.begin(), email.end(), email.begin(), [](unsigned char c) { return std::tolower(c); });
    return email;
}

std::string Auth::setupDigest(const NewUser& user) {
    std::string text = user.totpSecret + "\n" + user.role;
    for (const auto& code : user.backupCodes) text += "\n" + code;
    return crypto::sha256Hex(text);
}

std::optional<std::string> Auth::upsertUser(const NewUser& user) {
    const std::string email = normalizeEmail(user.email);
    if (email.empty() || user.password.empty()) return std::nullopt;
    if (!user.totpSecret.empty() && !totp::decodeBase32(user.totpSecret)) return std::nullopt;
    Account account;
    account.email = email;
    account.passwordHash = crypto::hashPassword(user.password);
    account.role = user.role.empty() ? "user" : user.role;
    account.totpSecret = user.totpSecret;
    account.setupDigest = setupDigest(user);
    for (const auto& code : user.backupCodes) account.backupCodeHashes.push_back(crypto::sha256Hex(code));
    return store_.mutate([&](State& state) {
        auto it = state.accounts.find(email);
        account.id = it != state.accounts.end() ? it->second.id : "usr_" + crypto::randomHex(8);
        state.accounts[email] = account;
        return account.id;
    });
}

std::string Auth::openSession(const std::string& email) {
    std::string token = crypto::randomHex(32);
    store_.mutate([&](State& state) {
        const int64_t now = crypto::nowMs();
        // Sessions that ran out are dropped whenever a new one opens, so the file stays small.
        std::erase_if(state.sessions, [&](const auto& entry) { return entry.second.expiresAtMs <= now; });
        state.sessions[crypto::sha256Hex(token)] = Session{email, now + kSessionLifetimeMs};
    });
    return token;
}

Auth::Login Auth::login(const std::string& rawEmail, const std::string& password) {
    const std::string email = normalizeEmail(rawEmail);
    auto account = store_.read([&](const State& state) -> std::optional<Account> {
        auto it = state.accounts.find(email);
        if (it == state.accounts.end()) return std::nullopt;
        return it->second;
    });
    if (!account) {
        // Hash anyway, so an unknown email takes as long as a wrong password.
        static const std::string dummy = crypto::hashPassword("not a password");
        crypto::verifyPassword(dummy, password);
        return {Login::Outcome::InvalidCredentials, {}};
    }
    if (!crypto::verifyPassword(account->passwordHash, password)) return {Login::Outcome::InvalidCredentials, {}};
    if (account->totpSecret.empty() && account->backupCodeHashes.empty()) {
        return {Login::Outcome::SignedIn, openSession(email)};
    }
    std::string token = crypto::randomHex(32);
    std::lock_guard lock(mfaMutex_);
    const int64_t now = crypto::nowMs();
    std::erase_if(pendingMfa_, [&](const auto& entry) { return entry.second.expiresAtMs <= now; });
    pendingMfa_[token] = PendingMfa{email, now + kMfaLifetimeMs, kMfaAttempts};
    return {Login::Outcome::MfaRequired, token};
}

std::optional<Auth::PendingMfa> Auth::pending(const std::string& mfaToken) {
    std::lock_guard lock(mfaMutex_);
    auto it = pendingMfa_.find(mfaToken);
    if (it == pendingMfa_.end()) return std::nullopt;
    if (it->second.expiresAtMs <= crypto::nowMs()) {
        pendingMfa_.erase(it);
        return std::nullopt;
    }
    return it->second;
}

void Auth::failedAttempt(const std::string& mfaToken) {
    std::lock_guard lock(mfaMutex_);
    auto it = pendingMfa_.find(mfaToken);
    if (it != pendingMfa_.end() && --it->second.attemptsLeft <= 0) pendingMfa_.erase(it);
}

Auth::Mfa Auth::verifyCode(const std::string& mfaToken, const std::string& code) {
    auto waiting = pending(mfaToken);
    if (!waiting) return {Mfa::Outcome::NoPendingMfa, {}};
    auto secret = store_.read([&](const State& state) -> std::string {
        auto it = state.accounts.find(waiting->email);
        return it == state.accounts.end() ? std::string() : it->second.totpSecret;
    });
    auto key = totp::decodeBase32(secret);
    if (!key || !totp::verify(*key, code, crypto::nowMs() / 1000)) {
        failedAttempt(mfaToken);
        return {Mfa::Outcome::InvalidCode, {}};
    }
    {
        std::lock_guard lock(mfaMutex_);
        pendingMfa_.erase(mfaToken);
    }
    return {Mfa::Outcome::SignedIn, openSession(waiting->email)};
}

Auth::Mfa Auth::verifyBackupCode(const std::string& mfaToken, const std::string& backupCode) {
    auto waiting = pending(mfaToken);
    if (!waiting) return {Mfa::Outcome::NoPendingMfa, {}};
    const std::string hash = crypto::sha256Hex(backupCode);
    // A backup code works once: it is removed in the same save that accepts it.
    bool used = store_.mutate([&](State& state) {
        auto it = state.accounts.find(waiting->email);
        if (it == state.accounts.end()) return false;
        auto& codes = it->second.backupCodeHashes;
        auto found = std::find_if(codes.begin(), codes.end(), [&](const std::string& h) { return crypto::equal(h, hash); });
        if (found == codes.end()) return false;
        codes.erase(found);
        return true;
    });
    if (!used) {
        failedAttempt(mfaToken);
        return {Mfa::Outcome::InvalidBackupCode, {}};
    }
    {
        std::lock_guard lock(mfaMutex_);
        pendingMfa_.erase(mfaToken);
    }
    return {Mfa::Outcome::SignedIn, openSession(waiting->email)};
}

std::optional<Account> Auth::authenticate(const std::string& sessionToken) const {
    if (sessionToken.empty()) return std::nullopt;
    const std::string hash = crypto::sha256Hex(sessionToken);
    return store_.read([&](const State& state) -> std::optional<Account> {
        auto it = state.sessions.find(hash);
        if (it == state.sessions.end() || it->second.expiresAtMs <= crypto::nowMs()) return std::nullopt;
        auto account = state.accounts.find(it->second.email);
        if (account == state.accounts.end()) return std::nullopt;
        return account->second;
    });
}

void Auth::logout(const std::string& sessionToken) {
    const std::string hash = crypto::sha256Hex(sessionToken);
    store_.mutate([&](State& state) { state.sessions.erase(hash); });
}

int Auth::expireSessions(const std::string& rawEmail) {
    const std::string email = normalizeEmail(rawEmail);
    return store_.mutate([&](State& state) {
        int count = 0;
        const int64_t now = crypto::nowMs();
        for (auto& [hash, session] : state.sessions) {
            if (session.email == email && session.expiresAtMs > now) {
                session.expiresAtMs = now - 1;
                ++count;
            }
        }
        return count;
    });
}

}  // namespace vell::devserver
