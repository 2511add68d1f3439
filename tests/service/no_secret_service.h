#pragma once
// Keeps a test away from the desktop's real keyring: session storage sees no Secret
// Service and falls back to the file inside the test's private home.
#include "platform/secrets/secret_store.h"
#include "session/session_file_store.h"

namespace vell::service::testing {

class NoSecretService final : public secret::Store {
public:
    NoSecretService() { session::SessionFileStore::resetForTesting(this); }
    ~NoSecretService() override { session::SessionFileStore::resetForTesting(nullptr); }
    bool reachable() override { return false; }
    Expected<std::optional<std::string>, secret::Error> lookup(const std::string&) override {
        return unexpected(secret::Error{-1, "no Secret Service in tests"});
    }
    Expected<Unit, secret::Error> store(const std::string&, const std::string&) override {
        return unexpected(secret::Error{-1, "no Secret Service in tests"});
    }
    Expected<Unit, secret::Error> clear(const std::string&) override { return Unit{}; }
};

}  // namespace vell::service::testing
