#include "base/process_start.h"

#include <sys/stat.h>

#include <csignal>

namespace vell::process {

void start() {
    ::umask(077);
    std::signal(SIGPIPE, SIG_IGN);
}

}  // namespace vell::process
