#include "app/clipboard.h"

#include <mutex>

namespace vell::app {

namespace {
std::mutex lock;
std::shared_ptr<Clipboard> installed;
}  // namespace

void installClipboard(std::shared_ptr<Clipboard> clipboard) {
    std::lock_guard guard(lock);
    installed = std::move(clipboard);
}

std::shared_ptr<Clipboard> clipboard() {
    std::lock_guard guard(lock);
    return installed;
}

}  // namespace vell::app
