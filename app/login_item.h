#pragma once
// The platform's "open at login" registration of the application, behind an interface so
// that tests can make it fail.
#include <string>

#include "base/expected.h"

namespace vell::app {

enum class LoginItemStatus { notRegistered = 0, enabled = 1, requiresApproval = 2, notFound = 3 };

class LoginItemService {
public:
    virtual ~LoginItemService() = default;
    virtual LoginItemStatus status() const = 0;
    // Errors are one sentence describing what failed.
    virtual Expected<Unit, std::string> registerItem() = 0;
    virtual Expected<Unit, std::string> unregisterItem() = 0;
};

}  // namespace vell::app
