#pragma once
// AccountApi over the API client: sign-in with an optional second factor, the signed-in
// user, sign-out. The blocking calls serve the command line; the AccountApi calls run them
// on a worker thread and complete on the main executor.
#include <mutex>

#include "service/account_api.h"
#include "service/api_client.h"

namespace vell::service {

class AccountClient final : public AccountApi {
public:
    explicit AccountClient(APIClient& client) : client_(client) {}

    Expected<Me, APIError> fetchMeNow() const;
    Expected<SignInStep, APIError> signInNow(const std::string& email, const std::string& password) const;
    Expected<Unit, APIError> verifyMfaNow(const MfaAnswer& answer) const;
    Expected<Unit, APIError> logoutNow() const;

    bool hasSession() const override { return client_.hasSessionCookie(); }
    void fetchMe(Done<Me> done) override;
    void signIn(const std::string& email, const std::string& password, Done<SignInStep> done) override;
    void verifyMfa(const MfaAnswer& answer, Done<Unit> done) override;
    void logout(Done<Unit> done) override;
    bool saveSession() override { return client_.saveSession(); }
    void clearSession() override { client_.clearSession(); }
    void setIdentity(const std::optional<Me>& me) override;
    std::optional<Me> identity() const;

    // The "api/me" answer; "id" may come as text or as a number.
    static Expected<Me, APIError> decodeMe(const Json& value);

private:
    APIClient& client_;
    mutable std::mutex mutex_;
    std::optional<Me> identity_;
};

}  // namespace vell::service
