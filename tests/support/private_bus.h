#pragma once
// A private dbus-daemon for one test: a session bus (DBUS_SESSION_BUS_ADDRESS) or a stand-in
// system bus (DBUS_SYSTEM_BUS_ADDRESS) that this process and its children use while the
// object lives. It activates no services (unless given a folder of them), so nothing of the machine's desktop (keyring,
// notification daemon) answers on it unless the test serves it.
#include <sys/types.h>

#include <filesystem>
#include <string>

namespace vell::test {

class PrivateBus {
public:
    enum class Kind { session, system };
    explicit PrivateBus(Kind kind = Kind::session);
    // A session bus that would start the services described in that folder's .service files.
    explicit PrivateBus(const std::filesystem::path& serviceDirectory);
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    const std::string& address() const { return address_; }

private:
    Kind kind_;
    std::filesystem::path dir_;
    std::string address_;
    std::string saved_;
    bool hadSaved_ = false;
    pid_t pid_ = -1;
    void start(const std::filesystem::path& serviceDirectory);
};

}  // namespace vell::test
