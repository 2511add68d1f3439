#include "base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <random>

namespace vell::files {

namespace fs = std::filesystem;

namespace {
std::error_code lastError() { return {errno, std::generic_category()}; }

bool writeAll(int fd, std::string_view data) {
    const char* p = data.data();
    size_t left = data.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    return true;
}

void syncDirectory(const fs::path& dir) {
    int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}
}  // namespace

bool writeAtomically(const fs::path& path, std::string_view data, std::error_code& error) {
    error.clear();
    fs::path dir = path.parent_path().empty() ? fs::path(".") : path.parent_path();
    std::random_device rd;
    fs::path tmp = dir / ("." + path.filename().string() + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(rd()));
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        error = lastError();
        return false;
    }
    bool ok = writeAll(fd, data) && ::fsync(fd) == 0;
    if (!ok) error = lastError();
    if (::close(fd) != 0 && ok) {
        ok = false;
        error = lastError();
    }
    if (ok && ::rename(tmp.c_str(), path.c_str()) != 0) {
        ok = false;
        error = lastError();
    }
    if (!ok) {
        ::unlink(tmp.c_str());
        return false;
    }
    syncDirectory(dir);
    return true;
}

const std::error_category& fileErrorCategory() {
    struct Category final : std::error_category {
        const char* name() const noexcept override { return "vell.files"; }
        std::string message(int code) const override {
            switch (static_cast<FileError>(code)) {
                case FileError::notRegular: return "not a regular file";
                case FileError::tooLarge: return "larger than any such file Vell writes";
            }
            return "file error";
        }
    };
    static const Category category;
    return category;
}

std::error_code make_error_code(FileError e) { return {static_cast<int>(e), fileErrorCategory()}; }

int openRegular(const fs::path& path, int flags, bool followLinks, std::error_code& error) {
    error.clear();
    const int fd = ::open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC | (followLinks ? 0 : O_NOFOLLOW));
    if (fd < 0) {
        error = errno == ELOOP && !followLinks ? make_error_code(FileError::notRegular) : lastError();
        return -1;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        error = S_ISDIR(st.st_mode) ? std::make_error_code(std::errc::is_a_directory) : make_error_code(FileError::notRegular);
        ::close(fd);
        return -1;
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return fd;
}

std::optional<std::string> read(const fs::path& path, std::error_code& error, std::size_t maxBytes, bool followLinks) {
    const int fd = openRegular(path, O_RDONLY, followLinks, error);
    if (fd < 0) return std::nullopt;
    struct stat st {};
    if (::fstat(fd, &st) == 0 && static_cast<std::uint64_t>(st.st_size) > maxBytes) {
        ::close(fd);
        error = make_error_code(FileError::tooLarge);
        return std::nullopt;
    }
    std::string out;
    out.reserve(static_cast<std::size_t>(st.st_size));
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            error = lastError();
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        // A file still growing is held to the same limit.
        if (out.size() + static_cast<std::size_t>(n) > maxBytes) {
            ::close(fd);
            error = make_error_code(FileError::tooLarge);
            return std::nullopt;
        }
        out.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return out;
}

std::string fileURL(const fs::path& path) {
    static const char* hex = "0123456789ABCDEF";
    std::string out = "file://";
    for (unsigned char c : path.string()) {
        bool plain = std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~';
        if (plain) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

std::optional<fs::path> pathFromFileURL(std::string_view url) {
    constexpr std::string_view scheme = "file://";
    if (url.substr(0, scheme.size()) != scheme) return std::nullopt;
    std::string_view rest = url.substr(scheme.size());
    // "file://localhost/..." names the local host too.
    if (rest.substr(0, 9) == "localhost") rest.remove_prefix(9);
    if (rest.empty() || rest.front() != '/') return std::nullopt;
    std::string out;
    for (size_t i = 0; i < rest.size(); ++i) {
        if (rest[i] == '%' && i + 2 < rest.size() && std::isxdigit(static_cast<unsigned char>(rest[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(rest[i + 2]))) {
            out += static_cast<char>(std::stoi(std::string(rest.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            out += rest[i];
        }
    }
    return fs::path(out);
}

int narrowToOwner(const fs::path& root) {
    int changed = 0;
    auto narrow = [&changed](const fs::path& path, const fs::file_status& status) {
        const auto wanted = fs::is_directory(status) ? fs::perms::owner_all : fs::perms::owner_read | fs::perms::owner_write;
        const auto open = status.permissions() & (fs::perms::group_all | fs::perms::others_all);
        if (open == fs::perms::none) return;
        std::error_code ec;
        fs::permissions(path, wanted, fs::perm_options::replace, ec);
        if (!ec) ++changed;
    };
    std::error_code ec;
    auto rootStatus = fs::symlink_status(root, ec);
    if (ec || !fs::is_directory(rootStatus)) return 0;
    narrow(root, rootStatus);
    for (fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec), end; !ec && it != end;
         it.increment(ec)) {
        auto status = it->symlink_status(ec);
        if (ec || fs::is_symlink(status)) continue;
        narrow(it->path(), status);
    }
    return changed;
}

}  // namespace vell::files
