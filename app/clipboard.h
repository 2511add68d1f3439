#pragma once
// The desktop's clipboard as the core sees it: plain text in, whether it got there out. The
// tray installs the toolkit's clipboard; without a tray the composition installs one that
// runs the desktop's clipboard tool. Main executor.
#include <memory>
#include <optional>
#include <string>

namespace vell::app {

class Clipboard {
public:
    virtual ~Clipboard() = default;
    // Replaces the clipboard's content with the text; an empty text is refused (false) and
    // the clipboard is left as it was.
    virtual bool copy(const std::string& text) = 0;
    // Why nothing can be copied at all (no desktop, no tool), in the interface language;
    // nothing when copying may work.
    virtual std::optional<std::string> unavailable() const { return std::nullopt; }
};

void installClipboard(std::shared_ptr<Clipboard> clipboard);
// The installed clipboard; null when none.
std::shared_ptr<Clipboard> clipboard();

}  // namespace vell::app
