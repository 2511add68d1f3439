#include "automation/call_applications.h"

#include <algorithm>
#include <cctype>
#include <initializer_list>
#include <string>
#include <unordered_set>

namespace vell::automation {

namespace {

using Set = std::unordered_set<std::string_view>;

// Browsers and the system's own call apps are listed so that they pass the system-prefix
// rule and count as call hosts.
const Set& callApplications() {
    static const Set set{
        "com.apple.facetime", "com.apple.mobilephone", "com.apple.mobilesms", "com.apple.safari",
        "com.apple.safaritechnologypreview", "com.apple.screencontinuity", "ai.perplexity.comet",
        "app.zen-browser.zen", "com.brave.browser", "com.duckduckgo.macos.browser", "com.google.chrome",
        "com.kagi.kagimacos", "com.microsoft.edgemac", "com.operasoftware.opera", "com.operasoftware.operagx",
        "com.vivaldi.vivaldi", "company.thebrowser.browser", "company.thebrowser.dia", "org.chromium.chromium",
        "org.mozilla.firefox", "org.mozilla.firefoxdeveloperedition", "org.mozilla.nightly",
        "org.torproject.torbrowser", "cisco-systems.spark", "com.amazon.amazon-chime", "com.cisco.webex",
        "com.cisco.webexmeetingsapp", "com.facebook.archon", "com.gather.gather", "com.hnc.discord",
        "com.logmein.gotomeeting", "com.microsoft.skypeforbusiness", "com.microsoft.teams", "com.microsoft.teams2",
        "com.ringcentral.glip", "com.skype.skype", "com.tencent.xinwechat", "com.tinyspeck.slackmacgap",
        "com.viber.osx", "com.wearezeta.zclient.mac", "com.webex.meetingmanager", "im.riot.app",
        "jp.naver.line.mac", "net.whatsapp.whatsapp", "org.jitsi.jitsi-meet", "org.telegram.desktop",
        "org.whispersystems.signal-desktop", "ru.keepcoder.telegram", "us.zoom.xos",
    };
    return set;
}

// "aquavoice.macOSBridge" keeps its capitals: lookups are lower case, so it never matches.
const Set& ignoredAudioUsers() {
    static const Set set{
        "app.quillon.mac", "aquavoice.macOSBridge", "com.electron.aqua-voice", "com.electron.wispr-flow",
        "com.superwhisper.mac", "com.nuance.dragon", "com.anthropic.claudefordesktop", "com.google.geminimacos",
        "com.openai.chat", "com.openai.codex", "com.raycast.macos", "ai.plaud.desktop.plaud", "com.loom.desktop",
        "com.obsproject.obs-studio", "pl.maczarnecki.cleanshotx", "com.audacityteam.audacity",
        "com.rogueamoeba.audiohijack", "com.rogueamoeba.loopback", "ai.krisp.krispmac", "com.elgato.wavelink",
        "com.rogueamoeba.soundsource", "org.python.python",
    };
    return set;
}

// The desktop plays and listens for itself: the sound server (and the streams its modules
// make, such as loopback and echo cancellation), the session manager, volume meters and
// speech synthesis. None of them is a call.
const Set& desktopAudioComponents() {
    static const Set set{
        "pipewire", "wireplumber", "pipewire-media-session", "pulseaudio",
        "org.pulseaudio.pavucontrol", "pavucontrol", "pavucontrol-qt", "org.pipewire.helvum",
        "gnome-control-center", "org.gnome.settings", "org.gnome.volumecontrol", "org.kde.plasma-pa", "gnome-shell", "plasmashell", "kmix",
        "org.kde.plasma.volume", "org.kde.kmix", "speech-dispatcher", "sd_espeak-ng", "sd_espeak",
        "sd_dummy", "sd_generic", "easyeffects", "com.github.wwmm.easyeffects",
    };
    return set;
}

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

}  // namespace

std::string lowercased(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return out;
}

bool isCallApplication(std::string_view id) { return callApplications().count(id) > 0; }
bool isIgnoredAudioUser(std::string_view id) { return ignoredAudioUsers().count(id) > 0; }
bool isDesktopAudioComponent(std::string_view id) { return desktopAudioComponents().count(id) > 0; }

bool isCallCandidate(std::string_view bundleID) {
    const auto id = lowercased(bundleID);
    if (id.empty()) return false;
    if (isCallApplication(id)) return true;
    if (startsWith(id, "com.apple.")) return false;
    return !isIgnoredAudioUser(id) && !isDesktopAudioComponent(id);
}

std::string callerDisplayName(std::string_view bundleID, std::string_view applicationName) {
    if (!applicationName.empty()) return std::string(applicationName);
    const auto id = lowercased(bundleID);
    for (auto [part, name] : std::initializer_list<std::pair<std::string_view, std::string_view>>{
             {"chrome", "Google Chrome"}, {"safari", "Safari"}, {"teams", "Microsoft Teams"}, {"zoom", "Zoom"},
             {"facetime", "FaceTime"}}) {
        if (id.find(part) != std::string::npos) return std::string(name);
    }
    return std::string(bundleID);
}

}  // namespace vell::automation
