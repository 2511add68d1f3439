#pragma once
// A private home for one test: XDG_DATA_HOME, XDG_CONFIG_HOME and TMPDIR point into a
// fresh directory that is removed afterwards, and the shared defaults store is replaced.
#include <filesystem>
#include <memory>
#include <string>

namespace vell {
class UserDefaults;
}

namespace vell::test {

class TempHome {
public:
    TempHome();
    ~TempHome();
    TempHome(const TempHome&) = delete;
    TempHome& operator=(const TempHome&) = delete;

    const std::filesystem::path& root() const { return root_; }
    std::filesystem::path dataHome() const { return root_ / "data"; }
    std::filesystem::path configHome() const { return root_ / "config"; }
    std::filesystem::path tmp() const { return root_ / "tmp"; }
    // XDG_RUNTIME_DIR (0700), unless a private sound server started later points it at its own.
    std::filesystem::path runtime() const { return root_ / "runtime"; }
    UserDefaults& defaults() { return *defaults_; }
    // Re-reads the defaults file, as a new launch would.
    void reloadDefaults();

private:
    std::filesystem::path root_;
    std::string savedData_, savedConfig_, savedTmp_, savedRuntime_;
    bool hadData_ = false, hadConfig_ = false, hadTmp_ = false, hadRuntime_ = false;
    std::unique_ptr<UserDefaults> defaults_;
};

// Runs a shell command, returning its exit status and standard output.
struct CommandResult {
    int status = -1;
    std::string output;
};
CommandResult runCommand(const std::string& command);

// Path of a built program (vell, vell-devserver).
std::filesystem::path binaryPath(const std::string& name);

}  // namespace vell::test
