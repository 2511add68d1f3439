#pragma once
// The clipboard of a desktop session reached through its command-line tool: wl-copy on
// Wayland (WAYLAND_DISPLAY), else xclip or xsel on X11 (DISPLAY), whichever is installed.
#include <memory>

#include "app/clipboard.h"

namespace vell::platform {

std::shared_ptr<app::Clipboard> makeCommandClipboard();

}  // namespace vell::platform
