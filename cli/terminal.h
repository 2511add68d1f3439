#pragma once
// What a command may draw: progress redrawn in place needs standard error to be a terminal
// that understands escape codes (not TERM=dumb, not a pipe or a log).
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace vell::cli {

inline bool fancyTerminal() {
    if (::isatty(STDERR_FILENO) != 1) return false;
    const char* term = std::getenv("TERM");
    return term && *term && std::string_view(term) != "dumb";
}

}  // namespace vell::cli
