#include "platform/http/http_user_agent.h"

#include <sys/utsname.h>

#include <cstdio>

namespace vell::http {

std::string kernelMajorMinor() {
    utsname name{};
    int major = 0, minor = 0;
    if (::uname(&name) != 0 || std::sscanf(name.release, "%d.%d", &major, &minor) != 2) return "0.0";
    return std::to_string(major) + "." + std::to_string(minor);
}

const std::string& userAgent() {
    static const std::string agent = [] {
        std::string version = VELL_VERSION;
        std::string build = VELL_BUILD_NUMBER;
        if (version.empty()) version = "1";
        if (build.empty()) build = "1";
        return "VellMac/" + version + " (" + build + "; Linux " + kernelMajorMinor() + ")";
    }();
    return agent;
}

}  // namespace vell::http
