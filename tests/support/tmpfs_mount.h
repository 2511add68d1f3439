#pragma once
// A small tmpfs mounted over a test's folder, to make a disk fill up (or refuse writes)
// for real. Needs the right to mount (root, or a user namespace that grants it); tests
// skip visibly when it is not there.
//
//   test::TmpfsMount disk(dir, 3 * 1024);   // 3 MiB
//   if (!disk.mounted()) GTEST_SKIP() << disk.error();
#include <filesystem>
#include <string>

namespace vell::test {

class TmpfsMount {
public:
    // Creates `dir` when missing and mounts a tmpfs of `kibibytes` over it.
    TmpfsMount(std::filesystem::path dir, long kibibytes, bool readOnly = false);
    ~TmpfsMount();
    TmpfsMount(const TmpfsMount&) = delete;
    TmpfsMount& operator=(const TmpfsMount&) = delete;

    bool mounted() const { return mounted_; }
    const std::string& error() const { return error_; }
    const std::filesystem::path& dir() const { return dir_; }
    // Fills the free space with a file of that name (so that the next write fails with
    // ENOSPC) / removes it again.
    void fill(const std::string& name = ".filler");
    // Fills it until about `bytes` are left free.
    void fillLeaving(std::size_t bytes, const std::string& name = ".filler");
    void unfill(const std::string& name = ".filler");
    // Makes the mount read-only or writable again, keeping its content.
    bool remount(bool readOnly);

private:
    std::filesystem::path dir_;
    long kibibytes_;
    bool mounted_ = false;
    std::string error_;
};

}  // namespace vell::test
