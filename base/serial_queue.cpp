#include "base/serial_queue.h"

#include <pthread.h>

#include <thread>

#include "base/asio_support.h"

namespace vell {

struct SerialQueue::Impl {
    asio::io_context io;
    asio::executor_work_guard<asio::io_context::executor_type> guard{io.get_executor()};
    std::thread thread;
};

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)), impl_(std::make_unique<Impl>()) {
    impl_->thread = std::thread([this] {
        // Thread names hold 15 characters: keep the distinctive tail of the label.
        std::string name = label_.size() > 15 ? label_.substr(label_.size() - 15) : label_;
        pthread_setname_np(pthread_self(), name.c_str());
        impl_->io.run();
    });
}

SerialQueue::~SerialQueue() {
    impl_->guard.reset();
    // Pending timers would keep the loop alive: posted work runs, timers are dropped.
    asio::post(impl_->io, [this] { impl_->io.stop(); });
    if (impl_->thread.joinable()) {
        if (impl_->thread.get_id() == std::this_thread::get_id()) {
            impl_->thread.detach();
        } else {
            impl_->thread.join();
        }
    }
}

void SerialQueue::post(Task task) { asio::post(impl_->io, std::move(task)); }

TimerHandle SerialQueue::postAfter(double delaySeconds, Task task) {
    return detail::scheduleOnce(impl_->io, delaySeconds, std::move(task));
}

TimerHandle SerialQueue::repeat(double intervalSeconds, Task task) {
    return detail::scheduleRepeating(impl_->io, intervalSeconds, std::move(task));
}

bool SerialQueue::isCurrentThread() const { return impl_->thread.get_id() == std::this_thread::get_id(); }

void SerialQueue::sync(const Task& task) {
    if (isCurrentThread()) {
        task();
        return;
    }
    std::promise<void> done;
    auto future = done.get_future();
    asio::post(impl_->io, [&] {
        try {
            task();
            done.set_value();
        } catch (...) {
            done.set_exception(std::current_exception());
        }
    });
    future.get();
}

}  // namespace vell
