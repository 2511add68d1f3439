#pragma once
// Open-at-login on Linux desktops: an XDG autostart entry
// ($XDG_CONFIG_HOME/autostart/vell.desktop) that the session starts at login.
//
// Status of an existing entry:
//   - no file, or an entry the user switched off in the desktop's start-up settings
//     (Hidden=true, X-GNOME-Autostart-enabled=false)  -> notRegistered
//   - an entry whose program is missing or unreadable (moved or uninstalled Vell)
//                                                       -> notFound
//   - otherwise                                         -> enabled
// requiresApproval never happens on Linux.
#include <filesystem>
#include <string>

#include "app/login_item.h"

namespace vell::app {

class XdgAutostartLoginItem final : public LoginItemService {
public:
    // `command` is the Exec line, its first word the program (absolute, or found in PATH).
    XdgAutostartLoginItem(std::filesystem::path entry, std::string command);

    LoginItemStatus status() const override;
    Expected<Unit, std::string> registerItem() override;
    Expected<Unit, std::string> unregisterItem() override;

    const std::filesystem::path& entry() const { return entry_; }

private:
    std::filesystem::path entry_;
    std::string command_;
};

}  // namespace vell::app
