// Request building and the validation order, without a server; and a refused connection.
#include <gtest/gtest.h>

#include <regex>

#include "platform/http/http_user_agent.h"
#include "service/api_client.h"
#include "tests/service/no_secret_service.h"
#include "tests/support/temp_home.h"

namespace vell::service {
namespace {

http::Response reply(long status, std::string body) { return {status, std::move(body)}; }

TEST(APIClientValidation, RedirectsAndUnauthorizedAreALostSessionWhateverTheBody) {
    auto redirect = APIClient::validate(reply(302, R"({"ok":false,"error":"invalid_credentials"})"));
    ASSERT_FALSE(redirect);
    EXPECT_EQ(redirect.error().kind, APIError::Kind::unauthenticated);
    EXPECT_EQ(APIClient::validate(reply(399, "")).error().kind, APIError::Kind::unauthenticated);
    auto expired = APIClient::validate(reply(401, R"({"error":"unauthorized","message":"Gone"})"));
    EXPECT_EQ(expired.error().description(Language::English), "Your session expired. Sign in again.");
}

TEST(APIClientValidation, ErrorBodiesGiveCodeAndMessage) {
    auto tooLong = APIClient::validate(reply(422, R"({"ok":false,"error":"too_long"})"));
    EXPECT_EQ(tooLong.error().kind, APIError::Kind::http);
    EXPECT_EQ(tooLong.error().status, 422);
    EXPECT_EQ(tooLong.error().description(Language::English), "This part is too long.");
    auto withMessage = APIClient::validate(reply(422, R"({"error":"too_long","message":"Under one hour, please."})"));
    EXPECT_EQ(withMessage.error().description(Language::English), "Under one hour, please.");
    auto html = APIClient::validate(reply(500, "<html><body>Internal Server Error</body></html>"));
    EXPECT_EQ(html.error().description(Language::English), "Server error (500).");
    // A body that does not decode as a whole counts as absent: one mistyped field costs
    // the others too, so a reply is never read partly.
    for (const char* body : {R"({"error":17,"message":null})", R"({"ok":"no","error":"too_long"})",
                             R"({"error":"too_long","message":["x"]})", R"(["too_long"])"}) {
        auto odd = APIClient::validate(reply(400, body));
        EXPECT_EQ(odd.error().description(Language::English), "Server error (400).") << body;
    }
    EXPECT_EQ(APIClient::validate(reply(400, R"({"error":"too_long","message":null,"extra":1})")).error().description(Language::English),
              "This part is too long.");
}

TEST(APIClientValidation, SuccessBodiesMustBeJSON) {
    auto ok = APIClient::validate(reply(200, R"({"id":"r1"})"));
    ASSERT_TRUE(ok);
    EXPECT_EQ(stringField(*ok, "id"), "r1");
    EXPECT_TRUE(APIClient::validate(reply(204, ""))->is_null());
    auto garbage = APIClient::validate(reply(200, "<html>"));
    EXPECT_EQ(garbage.error().kind, APIError::Kind::decoding);
    EXPECT_EQ(garbage.error().description(Language::Spanish), "Respuesta inesperada del servidor.");
}

TEST(APIClientRequests, BuildsURLHeadersAndJSONBody) {
    test::TempHome home;
    testing::NoSecretService noKeyring;
    APIClient client("http://127.0.0.1:9/base");
    auto built = client.build({.method = "POST",
                               .path = "api/recordings/upload/a b?/part",
                               .query = {{"since", "1 2"}, {"k", "x&y"}},
                               .json = Json{{"totalBytes", 3}}});
    ASSERT_TRUE(built);
    EXPECT_EQ(built->url, "http://127.0.0.1:9/base/api/recordings/upload/a%20b%3F/part?since=1%202&k=x%26y");
    EXPECT_EQ(built->body, R"({"totalBytes":3})");
    auto header = [&](const std::string& name) {
        for (auto& [n, v] : built->headers) {
            if (n == name) return v;
        }
        return std::string("<absent>");
    };
    EXPECT_EQ(header("Accept"), "application/json");
    EXPECT_EQ(header("Content-Type"), "application/json");
    EXPECT_TRUE(std::regex_match(header("User-Agent"), std::regex(R"(VellMac/[^ ]+ \([^;]+; Linux \d+\.\d+\))")))
        << header("User-Agent");
    EXPECT_EQ(built->idleSeconds, kRequestTimeout);
    EXPECT_EQ(built->maxSeconds, kTransferLimit);
}

TEST(APIClientRequests, UnencodableJSONFailsBeforeSending) {
    test::TempHome home;
    testing::NoSecretService noKeyring;
    APIClient client("http://127.0.0.1:9/");
    auto built = client.build({.method = "POST", .path = "x", .json = Json{{"name", std::string("\xff\xfe")}}});
    ASSERT_FALSE(built);
    EXPECT_EQ(built.error().kind, APIError::Kind::decoding);
}

TEST(APIClientRequests, RefusedConnectionIsNoConnection) {
    test::TempHome home;
    testing::NoSecretService noKeyring;
    APIClient client("http://127.0.0.1:9/");  // discard port: nothing listens
    auto result = client.send({.path = "api/me"});
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().kind, APIError::Kind::transport);
    EXPECT_TRUE(result.error().noConnection);
    EXPECT_EQ(result.error().description(Language::English), "No connection.");
    EXPECT_FALSE(client.hasSessionCookie());
}

}  // namespace
}  // namespace vell::service
