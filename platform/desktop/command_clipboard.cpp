#include "platform/desktop/command_clipboard.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <vector>

#include "base/language.h"
#include "base/log.h"

extern char** environ;

namespace vell::platform {

namespace {
const log::Logger kLog("Clipboard");

inline constexpr Text kNoDesktop{
    "There is no desktop session to copy into (neither WAYLAND_DISPLAY nor DISPLAY is set).",
    "No hay una sesión de escritorio donde copiar (no están definidas WAYLAND_DISPLAY ni DISPLAY)."};
inline constexpr Text kNoTool{
    "No clipboard tool is installed: install wl-clipboard (Wayland) or xclip or xsel (X11) to copy from a terminal.",
    "No hay una herramienta de portapapeles instalada: instalá wl-clipboard (Wayland) o xclip o xsel (X11) para "
    "copiar desde una terminal."};

bool set(const char* name) {
    const char* value = std::getenv(name);
    return value && *value;
}

std::optional<std::filesystem::path> onPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path ? path : "/usr/local/bin:/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        if (dir.empty()) continue;
        const auto candidate = std::filesystem::path(dir) / program;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return std::nullopt;
}

class CommandClipboard final : public app::Clipboard {
public:
    bool copy(const std::string& text) override {
        if (text.empty()) return false;
        auto command = tool();
        if (command.empty()) return false;
        return run(command, text);
    }

    std::optional<std::string> unavailable() const override {
        if (!set("WAYLAND_DISPLAY") && !set("DISPLAY")) return kNoDesktop.str();
        if (tool().empty()) return kNoTool.str();
        return std::nullopt;
    }

private:
    static std::vector<std::string> tool() {
        if (set("WAYLAND_DISPLAY")) {
            if (auto p = onPath("wl-copy")) return {p->string(), "--type", "text/plain;charset=utf-8"};
        }
        if (set("DISPLAY")) {
            if (auto p = onPath("xclip")) return {p->string(), "-selection", "clipboard", "-in"};
            if (auto p = onPath("xsel")) return {p->string(), "--clipboard", "--input"};
        }
        return {};
    }

    // The tool reads the text on its standard input; the ones that keep serving the
    // selection fork into the background and leave at once.
    static bool run(const std::vector<std::string>& command, const std::string& text) {
        int pipeFds[2];
        if (::pipe2(pipeFds, O_CLOEXEC) != 0) return false;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipeFds[0], 0);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        std::vector<char*> argv;
        for (const auto& a : command) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        pid_t pid = -1;
        const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(pipeFds[0]);
        if (spawned != 0) {
            ::close(pipeFds[1]);
            kLog.error("cannot start " + command[0]);
            return false;
        }
        // A tool that exits early shows as a failed write: SIGPIPE is ignored for the process.
        size_t sent = 0;
        while (sent < text.size()) {
            const ssize_t n = ::write(pipeFds[1], text.data() + sent, text.size() - sent);
            if (n <= 0) break;
            sent += static_cast<size_t>(n);
        }
        ::close(pipeFds[1]);
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        const bool ok = sent == text.size() && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        if (!ok) kLog.error(command[0] + " did not take the text");
        return ok;
    }
};
}  // namespace

std::shared_ptr<app::Clipboard> makeCommandClipboard() { return std::make_shared<CommandClipboard>(); }

}  // namespace vell::platform
