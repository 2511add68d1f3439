#pragma once
// File helpers shared by everything that persists state.
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

// The whole file, or nothing with error set (ENOENT for a missing file).
std::optional<std::string> read(const std::filesystem::path& path, std::error_code& error);

// "file://" URL of an absolute path, percent-encoding what a URL path cannot hold.
std::string fileURL(const std::filesystem::path& path);
// The path of a "file://" URL; nothing when the text is not a local file URL.
std::optional<std::filesystem::path> pathFromFileURL(std::string_view url);

// Recordings and everything about them are the user's alone: folders 0700, files 0600.
// Narrows whatever below root is open to others (symbolic links are left alone) and
// returns how many entries it changed.
int narrowToOwner(const std::filesystem::path& root);

}  // namespace vell::files
