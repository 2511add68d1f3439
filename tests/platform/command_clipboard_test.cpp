// The clipboard from a terminal: which tool runs for which session, and the sentence when
// nothing can be copied. The X case with a real xclip is in the recover daemon test.
#include "platform/desktop/command_clipboard.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>

#include "base/language.h"
#include "tests/support/temp_home.h"

namespace vell::platform {
namespace {

namespace fs = std::filesystem;

// Sets environment variables for one test and puts them back.
class Environment {
public:
    void set(const char* name, const std::optional<std::string>& value) {
        if (!saved_.count(name)) {
            const char* old = std::getenv(name);
            saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
        }
        if (value) ::setenv(name, value->c_str(), 1);
        else ::unsetenv(name);
    }
    ~Environment() {
        for (const auto& [name, value] : saved_) {
            if (value) ::setenv(name.c_str(), value->c_str(), 1);
            else ::unsetenv(name.c_str());
        }
    }

private:
    std::map<std::string, std::optional<std::string>> saved_;
};

TEST(CommandClipboard, PicksTheSessionsToolAndSaysWhyWhenThereIsNone) {
    setInterfaceLanguage(Language::English);
    test::TempHome home;
    Environment env;
    auto clipboard = makeCommandClipboard();

    env.set("WAYLAND_DISPLAY", std::nullopt);
    env.set("DISPLAY", std::nullopt);
    ASSERT_TRUE(clipboard->unavailable());
    EXPECT_NE(clipboard->unavailable()->find("no desktop session"), std::string::npos) << *clipboard->unavailable();
    EXPECT_FALSE(clipboard->copy("hello"));

    // A Wayland session whose wl-copy is a stand-in that keeps what it was given.
    const fs::path bin = home.root() / "bin";
    fs::create_directories(bin);
    const fs::path got = home.root() / "got.txt";
    std::ofstream(bin / "wl-copy") << "#!/bin/sh\nexec /bin/cat > '" << got.string() << "'\n";
    fs::permissions(bin / "wl-copy", fs::perms::owner_all);
    env.set("PATH", bin.string());
    env.set("WAYLAND_DISPLAY", std::string("wayland-0"));
    EXPECT_FALSE(clipboard->unavailable());
    EXPECT_TRUE(clipboard->copy("héllo\nworld"));
    std::ifstream in(got);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "héllo\nworld");
    // An empty text is refused and the clipboard is not touched.
    fs::remove(got);
    EXPECT_FALSE(clipboard->copy(""));
    EXPECT_FALSE(fs::exists(got));

    // X11 without xclip or xsel on the path.
    env.set("WAYLAND_DISPLAY", std::nullopt);
    env.set("DISPLAY", std::string(":99"));
    ASSERT_TRUE(clipboard->unavailable());
    EXPECT_NE(clipboard->unavailable()->find("install wl-clipboard"), std::string::npos);
    EXPECT_FALSE(clipboard->copy("hello"));
}

}  // namespace
}  // namespace vell::platform
