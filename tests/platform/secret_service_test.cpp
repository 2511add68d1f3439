// Whether the desktop's Secret Service is there, asked of the bus before libsecret is: a
// name owner counts, and so does a service the bus would start; a bus with neither does not.
#include <gtest/gtest.h>

#include <fstream>
#include <sdbus-c++/sdbus-c++.h>

#include "platform/secrets/secret_store.h"
#include "tests/support/private_bus.h"
#include "tests/support/temp_home.h"

namespace vell::secret {
namespace {

TEST(SecretServiceOnBus, FoundWhenSomethingServesItOrTheBusWouldStartIt) {
    vell::test::TempHome home;
    {
        vell::test::PrivateBus bus;
        EXPECT_FALSE(secretServiceOnBus());
        EXPECT_FALSE(libsecretStore().reachable());
        auto keyring = sdbus::createSessionBusConnection("org.freedesktop.secrets");
        EXPECT_TRUE(secretServiceOnBus());
    }
    const auto services = home.root() / "services";
    std::filesystem::create_directories(services);
    std::ofstream(services / "org.freedesktop.secrets.service") << "[D-BUS Service]\nName=org.freedesktop.secrets\nExec=/bin/false\n";
    vell::test::PrivateBus bus(services);
    EXPECT_TRUE(secretServiceOnBus());
}

}  // namespace
}  // namespace vell::secret
