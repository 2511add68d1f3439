#pragma once
// A private home, a running reference service with one account, and a client signed in
// to it.
#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "service/account_client.h"
#include "service/api_client.h"
#include "tests/service/no_secret_service.h"
#include "tests/support/devserver_process.h"
#include "tests/support/temp_home.h"

namespace vell::service::testing {

inline constexpr const char* kEmail = "ana@vell.test";
inline constexpr const char* kPassword = "correct horse";

struct ServiceTest : ::testing::Test {
    test::TempHome home;
    NoSecretService noKeyring;
    std::unique_ptr<test::DevServer> server;
    std::unique_ptr<APIClient> client;
    std::unique_ptr<AccountClient> account;

    void SetUp() override {
        setInterfaceLanguage(Language::English);
        VELL_REQUIRE_DEVSERVER();
        server = std::make_unique<test::DevServer>(test::DevServer::Options{.users = {std::string(kEmail) + ":" + kPassword}});
        client = std::make_unique<APIClient>(server->url());
        account = std::make_unique<AccountClient>(*client);
    }
    void signIn() {
        auto step = account->signInNow(kEmail, kPassword);
        ASSERT_TRUE(step) << step.error().description(Language::English);
        ASSERT_EQ(*step, SignInStep::signedIn);
    }
    // A file of pseudo-random bytes (incompressible, different per size).
    std::filesystem::path makeFile(const std::string& name, long long size) {
        auto path = home.root() / name;
        std::ofstream out(path, std::ios::binary);
        std::mt19937_64 random(static_cast<unsigned long long>(size));
        std::vector<uint64_t> block(8192);
        for (long long written = 0; written < size;) {
            for (auto& word : block) word = random();
            long long n = std::min<long long>(size - written, static_cast<long long>(block.size() * 8));
            out.write(reinterpret_cast<const char*>(block.data()), n);
            written += n;
        }
        return path;
    }
    nlohmann::json recording(const std::string& id) const {
        for (const auto& r : server->recordings()) {
            if (r.value("id", "") == id) return r;
        }
        return nullptr;
    }
};

}  // namespace vell::service::testing
