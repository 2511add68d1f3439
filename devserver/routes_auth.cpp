// Sign-in, second factor, current user and sign-out.
#include <ctime>

#include "devserver/routes.h"

namespace vell::devserver {

using nlohmann::json;

namespace {
std::string cookie(const std::string& name, const std::string& value, int64_t maxAgeMs) {
    const std::time_t expires = std::time(nullptr) + static_cast<std::time_t>(maxAgeMs / 1000);
    std::tm tm{};
    gmtime_r(&expires, &tm);
    char date[64];
    std::strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S GMT", &tm);
    return name + "=" + value + "; Path=/; HttpOnly; SameSite=Lax; Max-Age=" + std::to_string(maxAgeMs / 1000) +
           "; Expires=" + date;
}

std::string clearedCookie(const std::string& name) {
    return name + "=; Path=/; HttpOnly; SameSite=Lax; Max-Age=0; Expires=Thu, 01 Jan 1970 00:00:00 GMT";
}

std::optional<std::string> stringField(const json& body, const char* key) {
    auto it = body.find(key);
    if (it == body.end()) return std::nullopt;
    if (it->is_string() && !it->get<std::string>().empty()) return it->get<std::string>();
    if (it->is_number_unsigned()) return std::to_string(it->get<uint64_t>());
    return std::nullopt;
}
}  // namespace

std::optional<Account> signedIn(Exchange& ex, Auth& auth) {
    auto account = auth.authenticate(ex.cookie("vell_session"));
    if (!account) ex.fail(401, "unauthorized");
    return account;
}

bool optionalInteger(const json& body, const char* key, std::optional<int64_t>& out) {
    auto it = body.find(key);
    if (it == body.end() || it->is_null()) return true;
    if (!it->is_number_integer()) return false;
    out = it->get<int64_t>();
    return true;
}

void addAuthRoutes(Router& router, Services& s) {
    router.post(R"(/api/auth/login)", [&s](Exchange& ex) {
        auto body = ex.json();
        auto email = body && body->is_object() ? stringField(*body, "email") : std::nullopt;
        auto password = body && body->is_object() ? stringField(*body, "password") : std::nullopt;
        if (!email || !password) return ex.fail(400, "missing_fields");
        auto result = s.auth.login(*email, *password);
        switch (result.outcome) {
            case Auth::Login::Outcome::InvalidCredentials:
                return ex.fail(401, "invalid_credentials");
            case Auth::Login::Outcome::MfaRequired:
                ex.res.set_header("Set-Cookie", cookie("vell_mfa", result.token, kMfaLifetimeMs));
                return ex.reply(200, {{"ok", true}, {"mfaRequired", true}});
            case Auth::Login::Outcome::SignedIn:
                ex.res.set_header("Set-Cookie", cookie("vell_session", result.token, kSessionLifetimeMs));
                return ex.reply(200, {{"ok", true}, {"mfaRequired", false}});
        }
    });

    router.post(R"(/api/auth/mfa)", [&s](Exchange& ex) {
        auto body = ex.json();
        auto code = body && body->is_object() ? stringField(*body, "code") : std::nullopt;
        auto backup = body && body->is_object() ? stringField(*body, "backupCode") : std::nullopt;
        if (!code && !backup) return ex.fail(400, "missing_fields");
        const std::string token = ex.cookie("vell_mfa");
        auto result = code ? s.auth.verifyCode(token, *code) : s.auth.verifyBackupCode(token, *backup);
        switch (result.outcome) {
            case Auth::Mfa::Outcome::NoPendingMfa:
                return ex.fail(400, "no_pending_mfa");
            case Auth::Mfa::Outcome::InvalidCode:
                return ex.fail(400, "invalid_code");
            case Auth::Mfa::Outcome::InvalidBackupCode:
                return ex.fail(400, "invalid_backup_code");
            case Auth::Mfa::Outcome::SignedIn:
                ex.res.set_header("Set-Cookie", cookie("vell_session", result.sessionToken, kSessionLifetimeMs));
                ex.res.set_header("Set-Cookie", clearedCookie("vell_mfa"));
                return ex.reply(200, {{"ok", true}});
        }
    });

    router.get(R"(/api/me)", [&s](Exchange& ex) {
        auto account = signedIn(ex, s.auth);
        if (!account) return;
        ex.reply(200, {{"id", account->id}, {"email", account->email}, {"role", account->role},
                       {"isAdmin", account->role == "admin"}});
    });

    router.post(R"(/api/logout)", [&s](Exchange& ex) {
        if (!signedIn(ex, s.auth)) return;
        s.auth.logout(ex.cookie("vell_session"));
        ex.res.set_header("Set-Cookie", clearedCookie("vell_session"));
        ex.reply(200, {{"ok", true}});
    });
}

}  // namespace vell::devserver
