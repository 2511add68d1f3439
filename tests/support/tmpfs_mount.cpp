#include "tests/support/tmpfs_mount.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace vell::test {

TmpfsMount::TmpfsMount(std::filesystem::path dir, long kibibytes, bool readOnly)
    : dir_(std::move(dir)), kibibytes_(kibibytes) {
    std::error_code ec;
    std::filesystem::create_directories(dir_, ec);
    const std::string options = "size=" + std::to_string(kibibytes) + "k,mode=0755";
    if (::mount("tmpfs", dir_.c_str(), "tmpfs", readOnly ? MS_RDONLY : 0, options.c_str()) != 0) {
        error_ = "cannot mount a tmpfs on " + dir_.string() + ": " + std::strerror(errno) + " (needs root)";
        return;
    }
    mounted_ = true;
}

TmpfsMount::~TmpfsMount() {
    if (mounted_) ::umount2(dir_.c_str(), MNT_DETACH);
}

bool TmpfsMount::remount(bool readOnly) {
    const std::string options = "size=" + std::to_string(kibibytes_) + "k";
    return ::mount("tmpfs", dir_.c_str(), "tmpfs", MS_REMOUNT | (readOnly ? MS_RDONLY : 0), options.c_str()) == 0;
}

void TmpfsMount::fill(const std::string& name) {
    const int fd = ::open((dir_ / name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    std::vector<char> block(4096, 'f');
    while (::write(fd, block.data(), block.size()) > 0) {
    }
    // The last few bytes a page write could not take.
    while (::write(fd, block.data(), 1) > 0) {
    }
    ::close(fd);
}

void TmpfsMount::fillLeaving(std::size_t bytes, const std::string& name) {
    struct statvfs st {};
    if (::statvfs(dir_.c_str(), &st) != 0) return;
    const std::size_t free = std::size_t(st.f_bavail) * st.f_frsize;
    if (free <= bytes) return;
    const int fd = ::open((dir_ / name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    std::vector<char> block(65536, 'f');
    std::size_t left = free - bytes;
    while (left > 0) {
        const ssize_t n = ::write(fd, block.data(), std::min(left, block.size()));
        if (n <= 0) break;
        left -= std::size_t(n);
    }
    ::close(fd);
}

void TmpfsMount::unfill(const std::string& name) {
    std::error_code ec;
    std::filesystem::remove(dir_ / name, ec);
}

}  // namespace vell::test
