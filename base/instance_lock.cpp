#include "base/instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/files.h"
#include "base/language.h"
#include "base/log.h"
#include "base/private_folder.h"

namespace vell {

Expected<std::shared_ptr<InstanceLock>, InstanceLock::Refusal> InstanceLock::acquire(
    const std::filesystem::path& dataDirectory) {
    std::error_code ec;
    files::createPrivateDirectories(dataDirectory, ec);
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
    // Whichever program owns the folder: what older versions made open to others is narrowed
    // before anything is read from it (once the folder is private there is nothing to walk).
    const auto open = std::filesystem::status(dataDirectory, ec).permissions() &
                      (std::filesystem::perms::group_all | std::filesystem::perms::others_all);
    if (!ec && open != std::filesystem::perms::none) {
        if (const int narrowed = files::narrowToOwner(dataDirectory); narrowed > 0) {
            log::Logger("App").info("made " + std::to_string(narrowed) + " files and folders private to their owner");
        }
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
