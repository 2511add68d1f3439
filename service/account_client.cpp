#include "service/account_client.h"

#include "service/reply_records.h"

namespace vell::service {

Expected<Me, APIError> AccountClient::decodeMe(const Json& value) {
    if (!value.is_object()) return unexpected(APIError::decoding("user: not an object"));
    Me me;
    auto id = value.find("id");
    if (id != value.end() && id->is_string()) {
        me.id = id->get<std::string>();
    } else if (id != value.end() && id->is_number_integer()) {
        me.id = std::to_string(id->get<long long>());
    } else {
        return unexpected(APIError::decoding("user: missing id"));
    }
    auto email = value.find("email");
    auto role = value.find("role");
    auto admin = value.find("isAdmin");
    // The whole record or nothing: a mistyped optional field is not quietly dropped.
    if (email == value.end() || !email->is_string()) return unexpected(APIError::decoding("user: missing email"));
    if (role != value.end() && !role->is_null() && !role->is_string()) return unexpected(APIError::decoding("user: role"));
    if (admin != value.end() && !admin->is_null() && !admin->is_boolean()) {
        return unexpected(APIError::decoding("user: isAdmin"));
    }
    me.email = email->get<std::string>();
    me.role = stringField(value, "role").value_or("");
    me.isAdmin = admin != value.end() && admin->is_boolean() && admin->get<bool>();
    return me;
}

Expected<Me, APIError> AccountClient::fetchMeNow() const {
    auto reply = client_.send({.method = "GET", .path = "api/me"});
    if (!reply) return unexpected(reply.error());
    return decodeMe(*reply);
}

namespace {
// Signing in has no session to lose: a 401 that names its reason (wrong password, wrong
// code) is that reason, not an expired session.
Expected<Json, APIError> sendCredentials(const APIClient& client, ApiRequest request) {
    auto response = client.perform(std::move(request));
    if (!response) return unexpected(response.error());
    if (response->status == 401) {
        auto body = decodeErrorBody(response->body).value_or(ErrorBody{});
        if (body.error && !body.error->empty() && *body.error != "unauthorized") {
            return unexpected(APIError::http(401, body.error, body.message));
        }
    }
    return APIClient::validate(*response);
}
}  // namespace

Expected<SignInStep, APIError> AccountClient::signInNow(const std::string& email, const std::string& password) const {
    auto reply = sendCredentials(
        client_, {.method = "POST", .path = "api/auth/login", .json = Json{{"email", email}, {"password", password}}});
    if (!reply) return unexpected(reply.error());
    if (!reply->is_object()) return unexpected(APIError::decoding("sign-in: not an object"));
    auto mfa = reply->find("mfaRequired");
    bool mfaRequired = mfa != reply->end() && mfa->is_boolean() && mfa->get<bool>();
    return mfaRequired ? SignInStep::mfaRequired : SignInStep::signedIn;
}

Expected<Unit, APIError> AccountClient::verifyMfaNow(const MfaAnswer& answer) const {
    Json body = Json::object();
    if (answer.code) body["code"] = *answer.code;
    if (answer.backupCode) body["backupCode"] = *answer.backupCode;
    auto reply = sendCredentials(client_, {.method = "POST", .path = "api/auth/mfa", .json = body});
    if (!reply) return unexpected(reply.error());
    return Unit{};
}

Expected<Unit, APIError> AccountClient::logoutNow() const {
    auto reply = client_.send({.method = "POST", .path = "api/logout"});
    if (!reply) return unexpected(reply.error());
    return Unit{};
}

void AccountClient::fetchMe(Done<Me> done) {
    client_.async<Me>([this] { return fetchMeNow(); }, std::move(done));
}

void AccountClient::signIn(const std::string& email, const std::string& password, Done<SignInStep> done) {
    client_.async<SignInStep>([this, email, password] { return signInNow(email, password); }, std::move(done));
}

void AccountClient::verifyMfa(const MfaAnswer& answer, Done<Unit> done) {
    client_.async<Unit>([this, answer] { return verifyMfaNow(answer); }, std::move(done));
}

void AccountClient::logout(Done<Unit> done) {
    client_.async<Unit>([this] { return logoutNow(); }, std::move(done));
}

void AccountClient::setIdentity(const std::optional<Me>& me) {
    std::lock_guard lock(mutex_);
    identity_ = me;
}

std::optional<Me> AccountClient::identity() const {
    std::lock_guard lock(mutex_);
    return identity_;
}

}  // namespace vell::service
