#include "app/xdg_autostart_login_item.h"

#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "base/private_folder.h"
#include "base/application_id.h"
#include "base/files.h"

namespace vell::app {

namespace fs = std::filesystem;

namespace {
std::string trimmed(std::string s) {
    auto start = s.find_first_not_of(" \t\r");
    auto end = s.find_last_not_of(" \t\r");
    return start == std::string::npos ? std::string() : s.substr(start, end - start + 1);
}

bool isExecutable(const fs::path& p) {
    std::error_code ec;
    return fs::is_regular_file(p, ec) && ::access(p.c_str(), X_OK) == 0;
}

// The program of an Exec line: an absolute path, or a name looked up in PATH.
bool programExists(const std::string& exec) {
    std::string program = exec.substr(0, exec.find_first_of(" \t"));
    if (program.size() >= 2 && program.front() == '"' && program.back() == '"') program = program.substr(1, program.size() - 2);
    if (program.empty()) return false;
    if (program.find('/') != std::string::npos) return isExecutable(program);
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path ? path : "/usr/local/bin:/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');) {
        if (!dir.empty() && isExecutable(fs::path(dir) / program)) return true;
    }
    return false;
}
}  // namespace

XdgAutostartLoginItem::XdgAutostartLoginItem(fs::path entry, std::string command)
    : entry_(std::move(entry)), command_(std::move(command)) {}

LoginItemStatus XdgAutostartLoginItem::status() const {
    std::error_code ec;
    if (!fs::exists(entry_, ec)) return LoginItemStatus::notRegistered;
    auto text = files::read(entry_, ec);
    if (!text) return LoginItemStatus::notFound;
    std::istringstream lines(*text);
    bool inEntry = false;
    std::string exec;
    bool disabled = false;
    for (std::string line; std::getline(lines, line);) {
        line = trimmed(line);
        if (line.empty() || line.front() == '#') continue;
        if (line.front() == '[') {
            inEntry = line == "[Desktop Entry]";
            continue;
        }
        if (!inEntry) continue;
        auto eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string key = trimmed(line.substr(0, eq));
        std::string value = trimmed(line.substr(eq + 1));
        if (key == "Exec") exec = value;
        if ((key == "Hidden" && value == "true") || (key == "X-GNOME-Autostart-enabled" && value == "false")) disabled = true;
    }
    if (disabled) return LoginItemStatus::notRegistered;
    if (exec.empty() || !programExists(exec)) return LoginItemStatus::notFound;
    return LoginItemStatus::enabled;
}

Expected<Unit, std::string> XdgAutostartLoginItem::registerItem() {
    std::error_code ec;
    files::createPrivateDirectories(entry_.parent_path(), ec);
    if (ec) return unexpected("cannot create " + entry_.parent_path().string() + ": " + ec.message());
    std::string text =
        "[Desktop Entry]\n"
        "Type=Application\n"
        "Name=Vell\n"
        "Comment=Records your calls and uploads them to Vell\n"
        "Exec=" + command_ + "\n"
        "Icon=" + std::string(kApplicationID) + "\n"
        "Terminal=false\n"
        "X-GNOME-Autostart-enabled=true\n";
    if (!files::writeAtomically(entry_, text, ec)) return unexpected("cannot write " + entry_.string() + ": " + ec.message());
    return Unit{};
}

Expected<Unit, std::string> XdgAutostartLoginItem::unregisterItem() {
    std::error_code ec;
    fs::remove(entry_, ec);
    if (ec) return unexpected("cannot remove " + entry_.string() + ": " + ec.message());
    return Unit{};
}

}  // namespace vell::app
