#include "base/paths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace vell::paths {

namespace fs = std::filesystem;

namespace {
fs::path home() {
    if (const char* h = std::getenv("HOME"); h && *h) return h;
    if (const passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir) return pw->pw_dir;
    return "/tmp";
}

fs::path fromEnv(const char* name, const fs::path& fallback) {
    const char* value = std::getenv(name);
    // The XDG rules ignore relative paths.
    if (value && *value == '/') return value;
    return fallback;
}
}  // namespace

fs::path applicationSupport() { return fromEnv("XDG_DATA_HOME", home() / ".local/share"); }
fs::path configHome() { return fromEnv("XDG_CONFIG_HOME", home() / ".config"); }
fs::path temporaryDirectory() { return fromEnv("TMPDIR", "/tmp"); }

fs::path vellDataDirectory() { return applicationSupport() / "Vell"; }
fs::path recordingsDirectory() { return vellDataDirectory() / "Recordings"; }
fs::path insuranceDirectory() { return vellDataDirectory() / "Insurance"; }
fs::path defaultsFile() { return configHome() / "Vell" / "defaults.json"; }
fs::path autostartEntry() { return configHome() / "autostart" / "vell.desktop"; }

}  // namespace vell::paths
