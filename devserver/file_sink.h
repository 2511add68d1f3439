#pragma once
// Appends a streamed body to a file through a 1 MiB buffer, so a part of any size costs the
// same memory, and syncs it to disk before anyone is told it is stored.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace vell::devserver {

class FileSink {
public:
    FileSink();
    ~FileSink();
    FileSink(const FileSink&) = delete;
    FileSink& operator=(const FileSink&) = delete;

    // Opens (creating) the file and cuts it to `keepBytes`, dropping any tail that was written
    // but never acknowledged; later writes go after those bytes.
    bool open(const std::filesystem::path& path, int64_t keepBytes);
    // Also feeds every byte into a SHA-256 digest (see sha256Hex()).
    void computeDigest();

    bool write(const char* data, size_t size);
    // Writes what is buffered and fsyncs the file.
    bool sync();
    // Cuts the file back to where it was opened (a rejected part leaves no trace).
    void rollback();
    void close();

    int64_t written() const { return written_; }
    std::string sha256Hex();

private:
    bool flushBuffer();

    int fd_ = -1;
    int64_t base_ = 0;
    int64_t written_ = 0;
    std::vector<char> buffer_;
    struct Digest;
    std::unique_ptr<Digest> digest_;
};

// fsync of a directory, after a file in it was created, linked or renamed.
void syncDirectory(const std::filesystem::path& dir);

}  // namespace vell::devserver
