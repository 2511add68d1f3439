#pragma once
// File helpers shared by everything that persists state.
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace vell::files {

// Writes data to a temporary file beside path, syncs it, renames it over path and syncs
// the directory: readers see the old or the new content, never a mix. On failure the old
// file is untouched and the temporary file removed.
bool writeAtomically(const std::filesystem::path& path, std::string_view data, std::error_code& error);

// What Vell reads whole is bounded: a file that is not a regular file (a FIFO, a device,
// a folder) or is larger than its limit is refused instead of hanging or filling memory.
inline constexpr std::size_t kDefaultReadLimit = 16u << 20;
// For a program's own store of any size (the reference service's uploads).
inline constexpr std::size_t kNoLimit = static_cast<std::size_t>(-1);

// Errors of the checks below; their messages are sentences a log line can carry.
enum class FileError { notRegular = 1, tooLarge };
const std::error_category& fileErrorCategory();
std::error_code make_error_code(FileError e);

// Opens a regular file without blocking (a FIFO would wait for a writer) and, with
// followLinks false, without following a symbolic link; the descriptor is blocking again
// when returned. -1 with error set otherwise.
int openRegular(const std::filesystem::path& path, int flags, bool followLinks, std::error_code& error);

// The whole regular file, or nothing with error set (ENOENT for a missing file,
// FileError::tooLarge above maxBytes, FileError::notRegular for anything else).
std::optional<std::string> read(const std::filesystem::path& path, std::error_code& error,
                                std::size_t maxBytes = kDefaultReadLimit, bool followLinks = true);

// "file://" URL of an absolute path, percent-encoding what a URL path cannot hold.
std::string fileURL(const std::filesystem::path& path);
// The path of a "file://" URL; nothing when the text is not a local file URL.
std::optional<std::filesystem::path> pathFromFileURL(std::string_view url);

// Recordings and everything about them are the user's alone: folders 0700, files 0600.
// Narrows whatever below root is open to others (symbolic links are left alone) and
// returns how many entries it changed.
int narrowToOwner(const std::filesystem::path& root);

}  // namespace vell::files

template <>
struct std::is_error_code_enum<vell::files::FileError> : std::true_type {};
