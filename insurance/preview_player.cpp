#include "insurance/preview_player.h"

#include <mutex>

namespace vell::insurance {

namespace {
std::mutex lock;
PreviewPlayerFactory installed;
}  // namespace

void setPreviewPlayerFactory(PreviewPlayerFactory factory) {
    std::lock_guard guard(lock);
    installed = std::move(factory);
}

PreviewPlayerFactory previewPlayerFactory() {
    std::lock_guard guard(lock);
    return installed;
}

}  // namespace vell::insurance
