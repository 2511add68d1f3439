#include "service/http_session.h"

#include <cctype>
#include <stdexcept>

namespace vell::http {

namespace {
// Installed before any client exists and never changed afterwards, so reads need no lock.
Binding gBinding;
bool gInstalled = false;
}  // namespace

void install(Binding binding) {
    gBinding = std::move(binding);
    gInstalled = true;
}

const Binding& binding() {
    if (!gInstalled) throw std::logic_error("vell: no HTTP binding installed");
    return gBinding;
}

std::string percentEncode(const std::string& text) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

}  // namespace vell::http
