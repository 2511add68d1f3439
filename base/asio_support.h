#pragma once
// Shared by the Asio-backed executors: timers that re-arm against their ideal deadline.
#include <asio.hpp>
#include <chrono>
#include <memory>

#include "base/executor.h"

namespace vell::detail {

inline std::chrono::steady_clock::duration toSteady(double seconds) {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
}

inline TimerHandle scheduleOnce(asio::io_context& io, double delaySeconds, Task task) {
    auto cancelled = std::make_shared<std::atomic<bool>>(false);
    auto timer = std::make_shared<asio::steady_timer>(io, toSteady(delaySeconds));
    timer->async_wait([timer, cancelled, task = std::move(task)](const asio::error_code& ec) {
        if (!ec && !cancelled->load()) task();
    });
    return TimerHandle(cancelled);
}

inline void armRepeating(std::shared_ptr<asio::steady_timer> timer, std::chrono::steady_clock::duration interval,
                         std::shared_ptr<std::atomic<bool>> cancelled, std::shared_ptr<Task> task) {
    timer->expires_at(timer->expiry() + interval);
    timer->async_wait([timer, interval, cancelled, task](const asio::error_code& ec) {
        if (ec || cancelled->load()) return;
        (*task)();
        if (!cancelled->load()) armRepeating(timer, interval, cancelled, task);
    });
}

inline TimerHandle scheduleRepeating(asio::io_context& io, double intervalSeconds, Task task) {
    auto cancelled = std::make_shared<std::atomic<bool>>(false);
    auto timer = std::make_shared<asio::steady_timer>(io);
    timer->expires_at(std::chrono::steady_clock::now());
    armRepeating(timer, toSteady(intervalSeconds), cancelled, std::make_shared<Task>(std::move(task)));
    return TimerHandle(cancelled);
}

}  // namespace vell::detail
