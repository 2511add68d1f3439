#include "base/asio_executor.h"

#include <atomic>
#include <optional>

#include "base/asio_support.h"

namespace vell {

struct AsioExecutor::Impl {
    asio::io_context io;
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> guard;
    std::atomic<std::thread::id> runner{};
    std::atomic<bool> stopRequested{false};
};

AsioExecutor::AsioExecutor() : impl_(std::make_unique<Impl>()) {}
AsioExecutor::~AsioExecutor() = default;

void AsioExecutor::post(Task task) { asio::post(impl_->io, std::move(task)); }

TimerHandle AsioExecutor::postAfter(double delaySeconds, Task task) {
    return detail::scheduleOnce(impl_->io, delaySeconds, std::move(task));
}

TimerHandle AsioExecutor::repeat(double intervalSeconds, Task task) {
    return detail::scheduleRepeating(impl_->io, intervalSeconds, std::move(task));
}

bool AsioExecutor::isCurrentThread() const { return impl_->runner.load() == std::this_thread::get_id(); }

void AsioExecutor::run() {
    if (impl_->stopRequested.exchange(false)) return;
    if (impl_->io.stopped()) impl_->io.restart();
    impl_->guard.emplace(impl_->io.get_executor());
    impl_->runner = std::this_thread::get_id();
    impl_->io.run();
    impl_->runner = std::thread::id{};
    impl_->stopRequested = false;
}

void AsioExecutor::stop() {
    impl_->stopRequested = true;
    impl_->guard.reset();
    impl_->io.stop();
}

}  // namespace vell
