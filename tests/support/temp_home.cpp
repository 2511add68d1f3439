#include "tests/support/temp_home.h"

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "base/user_defaults.h"

namespace vell::test {

namespace fs = std::filesystem;

namespace {
void save(const char* name, std::string& into, bool& had) {
    if (const char* v = std::getenv(name)) {
        into = v;
        had = true;
    }
}
void restore(const char* name, const std::string& value, bool had) {
    if (had) {
        ::setenv(name, value.c_str(), 1);
    } else {
        ::unsetenv(name);
    }
}
}  // namespace

TempHome::TempHome() {
    std::string pattern = (fs::temp_directory_path() / "vell-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    root_ = pattern;
    fs::create_directories(dataHome());
    fs::create_directories(configHome());
    fs::create_directories(tmp());
    fs::create_directory(runtime());
    fs::permissions(runtime(), fs::perms::owner_all, fs::perm_options::replace);
    save("XDG_DATA_HOME", savedData_, hadData_);
    save("XDG_CONFIG_HOME", savedConfig_, hadConfig_);
    save("TMPDIR", savedTmp_, hadTmp_);
    save("XDG_RUNTIME_DIR", savedRuntime_, hadRuntime_);
    ::setenv("XDG_RUNTIME_DIR", runtime().c_str(), 1);
    ::setenv("XDG_DATA_HOME", dataHome().c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", configHome().c_str(), 1);
    ::setenv("TMPDIR", tmp().c_str(), 1);
    reloadDefaults();
}

void TempHome::reloadDefaults() {
    UserDefaults::overrideStandard(nullptr);
    defaults_ = std::make_unique<UserDefaults>(configHome() / "Vell" / "defaults.json");
    UserDefaults::overrideStandard(defaults_.get());
}

TempHome::~TempHome() {
    UserDefaults::overrideStandard(nullptr);
    restore("XDG_DATA_HOME", savedData_, hadData_);
    restore("XDG_CONFIG_HOME", savedConfig_, hadConfig_);
    restore("TMPDIR", savedTmp_, hadTmp_);
    restore("XDG_RUNTIME_DIR", savedRuntime_, hadRuntime_);
    std::error_code ec;
    fs::remove_all(root_, ec);
}

CommandResult runCommand(const std::string& command) {
    CommandResult result;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return result;
    std::array<char, 4096> buffer{};
    size_t n;
    while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) result.output.append(buffer.data(), n);
    int status = ::pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

fs::path binaryPath(const std::string& name) {
    for (auto candidate : {fs::path(VELL_BINARY_DIR) / name, fs::path(VELL_BINARY_DIR) / "devserver" / name}) {
        if (fs::exists(candidate)) return candidate;
    }
    return fs::path(VELL_BINARY_DIR) / name;
}

}  // namespace vell::test
