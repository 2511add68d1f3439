#pragma once
// The desktop's Secret Service (GNOME Keyring, KWallet) through libsecret: small binary
// secrets stored under the service "app.quillon.mac.session" and an account name.
#include <optional>
#include <string>

#include "platform/expected.h"

namespace vell::secret {

inline constexpr const char* kServiceName = "app.quillon.mac.session";

struct Error {
    int code = 0;  // the D-Bus or libsecret error code
    std::string message;
};

class Store {
public:
    virtual ~Store() = default;
    // A collection answers (the service runs and has a default collection).
    virtual bool reachable() = 0;
    // Nothing when no item exists for the account.
    virtual Expected<std::optional<std::string>, Error> lookup(const std::string& account) = 0;
    virtual Expected<Unit, Error> store(const std::string& account, const std::string& bytes) = 0;
    virtual Expected<Unit, Error> clear(const std::string& account) = 0;
};

// The process-wide libsecret-backed store.
Store& systemStore();

}  // namespace vell::secret
