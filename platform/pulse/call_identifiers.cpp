#include "platform/pulse/call_identifiers.h"

#include <unordered_map>

#include "automation/call_applications.h"

namespace vell::pulse {

namespace {
const std::unordered_map<std::string_view, std::string_view>& binaries() {
    static const std::unordered_map<std::string_view, std::string_view> table{
        {"zoom", "us.zoom.xos"},
        {"firefox", "org.mozilla.firefox"},
        {"firefox-esr", "org.mozilla.firefox"},
        {"chrome", "com.google.chrome"},
        {"google-chrome", "com.google.chrome"},
        {"chromium", "org.chromium.chromium"},
        {"brave", "com.brave.browser"},
        {"msedge", "com.microsoft.edgemac"},
        {"teams", "com.microsoft.teams2"},
        {"teams-for-linux", "com.microsoft.teams2"},
        {"slack", "com.tinyspeck.slackmacgap"},
        {"Discord", "com.hnc.discord"},
        {"signal-desktop", "org.whispersystems.signal-desktop"},
        {"telegram-desktop", "org.telegram.desktop"},
        {"element-desktop", "im.riot.app"},
        {"skypeforlinux", "com.skype.skype"},
        {"webex", "com.cisco.webex"},
        {"obs", "com.obsproject.obs-studio"},
        {"audacity", "com.audacityteam.audacity"},
        {"python3", "org.python.python"},
        // Vell's own programs.
        {"vell", automation::kOwnBundleID},
        {"vell-tray", automation::kOwnBundleID},
    };
    return table;
}
}  // namespace

std::string identifierOfBinary(std::string_view binary) {
    auto it = binaries().find(binary);
    return std::string(it == binaries().end() ? binary : it->second);
}

std::string identifierOf(const StreamOwner& owner, const std::string& ownProcessID) {
    if (!owner.processID.empty() && owner.processID == ownProcessID) return std::string(automation::kOwnBundleID);
    if (!owner.portalAppID.empty()) return owner.portalAppID;
    if (!owner.applicationID.empty()) return owner.applicationID;
    return identifierOfBinary(owner.binary);
}

}  // namespace vell::pulse
