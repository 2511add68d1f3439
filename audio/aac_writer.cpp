#include "audio/aac_writer.h"

#include <mutex>

namespace vell::media {

namespace {
std::mutex gMutex;
AacWriterFactory gFactory;
}  // namespace

void setDefaultAacWriterFactory(AacWriterFactory factory) {
    std::lock_guard lock(gMutex);
    gFactory = std::move(factory);
}

AacWriterFactory defaultAacWriterFactory() {
    std::lock_guard lock(gMutex);
    if (gFactory) return gFactory;
    return [](const std::filesystem::path& path, const AacSettings&) -> Expected<std::unique_ptr<AacWriter>, std::string> {
        return unexpected(path.string() + ": no AAC writer installed");
    };
}

}  // namespace vell::media
