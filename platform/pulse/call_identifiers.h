#pragma once
// The identifier of a program using audio on this desktop, as the call lists know it: the
// sandbox's application id (Flatpak, portal) or the program's own application id when it
// gives one, else its binary name mapped to the identifier its makers use elsewhere. An
// unknown binary keeps its name. Any thread.
#include <string>
#include <string_view>

namespace vell::pulse {

// The mapped identifier of a binary name, or the name itself when it is not in the table.
std::string identifierOfBinary(std::string_view binary);

struct StreamOwner {
    std::string portalAppID;     // "pipewire.access.portal.app_id"
    std::string applicationID;   // "application.id"
    std::string binary;          // "application.process.binary"
    std::string processID;       // "application.process.id"
};

// Empty when nothing names the owner. ownProcessID: this process, which is always Vell.
std::string identifierOf(const StreamOwner& owner, const std::string& ownProcessID);

}  // namespace vell::pulse
