#include "base/instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/language.h"

namespace vell {

Expected<std::shared_ptr<InstanceLock>, InstanceLock::Refusal> InstanceLock::acquire(
    const std::filesystem::path& dataDirectory) {
    std::error_code ec;
    std::filesystem::create_directories(dataDirectory, ec);
    auto path = dataDirectory / "instance.lock";
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        // The folder's own failure (a read-only file system) says more than the lock
        // file's "no such file" that follows from it.
        std::string reason = ec ? ec.message() : std::strerror(errno);
        return unexpected(Refusal{
            false, localized("Vell cannot use its data folder " + dataDirectory.string() + ": " + reason + ".",
                             "Vell no puede usar su carpeta de datos " + dataDirectory.string() + ": " + reason + ".")});
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return unexpected(Refusal{
            true, localized("Another Vell is already running with the data folder " + dataDirectory.string() + ".",
                            "Ya hay otro Vell abierto con la carpeta de datos " + dataDirectory.string() + ".")});
    }
    // The holder's pid helps a user find the other process.
    if (::ftruncate(fd, 0) == 0) {
        auto pid = std::to_string(::getpid()) + "\n";
        [[maybe_unused]] auto n = ::write(fd, pid.data(), pid.size());
    }
    return std::shared_ptr<InstanceLock>(new InstanceLock(fd));
}

InstanceLock::~InstanceLock() {
    if (fd_ >= 0) ::close(fd_);
}

}  // namespace vell
