#pragma once
// Folders only this user may enter, and the one for Vell's short-lived files (live segments,
// speech previews, audio on its way to the service). Stateless; any thread.
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

namespace vell::files {

// Creates every missing folder of path with mode 0700 (folders that exist are left as they
// are). False with error set when one cannot be made.
bool createPrivateDirectories(const std::filesystem::path& path, std::error_code& error);

// path as a folder of this user's alone: made 0700 when missing, narrowed to 0700 when it is
// ours but open to others. A symbolic link, anything but a folder, or a folder of someone
// else's is refused (never used, never changed): nothing, with the reason in `refusal`.
std::optional<std::filesystem::path> privateFolder(const std::filesystem::path& path, std::string& refusal);

// $XDG_RUNTIME_DIR/vell, or <data folder>/Temporary when there is no runtime folder or the
// one there is refused (the refusal is logged once per reason). Nothing when neither can be
// made private.
std::optional<std::filesystem::path> temporaryFolder();

}  // namespace vell::files
