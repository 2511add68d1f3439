#include "session/secret_store.h"

#include <mutex>
#include <stdexcept>

namespace vell::secret {

namespace {
std::mutex gMutex;
std::function<Store&()> gProvider;
}  // namespace

void setSystemStore(std::function<Store&()> provider) {
    std::lock_guard lock(gMutex);
    gProvider = std::move(provider);
}

Store& systemStore() {
    std::function<Store&()> provider;
    {
        std::lock_guard lock(gMutex);
        provider = gProvider;
    }
    if (!provider) throw std::logic_error("vell: no secret store installed");
    return provider();
}

}  // namespace vell::secret
