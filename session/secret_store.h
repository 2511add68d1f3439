#pragma once
// The port to the desktop's secret store: small binary secrets kept under the service
// "app.quillon.mac.session" and an account name. The secrets binding implements it on the
// Secret Service and the composition root installs it at start-up.
#include <functional>
#include <optional>
#include <string>

#include "base/expected.h"

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

// The process-wide store: asked for on first use, so installing it costs nothing. Set once at
// start-up; systemStore() throws std::logic_error when nothing was installed.
void setSystemStore(std::function<Store&()> provider);
Store& systemStore();

}  // namespace vell::secret
