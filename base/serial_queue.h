#pragma once
// A named serial queue: one thread that runs its tasks in order. The label names the
// thread (shortened to what the kernel keeps) and appears in logs.
#include <future>
#include <memory>
#include <string>
#include <type_traits>

#include "base/executor.h"

namespace vell {

class SerialQueue final : public Executor {
public:
    explicit SerialQueue(std::string label);
    // Runs every task already posted, then joins the thread.
    ~SerialQueue() override;
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    void post(Task task) override;
    TimerHandle postAfter(double delaySeconds, Task task) override;
    TimerHandle repeat(double intervalSeconds, Task task) override;
    bool isCurrentThread() const override;

    // Runs the task on the queue and waits for it; runs inline when called on the queue.
    void sync(const Task& task);

    template <class F>
    auto syncResult(F&& f) -> std::invoke_result_t<F> {
        using R = std::invoke_result_t<F>;
        if (isCurrentThread()) return f();
        std::packaged_task<R()> packaged(std::forward<F>(f));
        auto future = packaged.get_future();
        sync([&] { packaged(); });
        return future.get();
    }

    const std::string& label() const { return label_; }

private:
    std::string label_;
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Labels of the serial queues, one per owner.
namespace queues {
inline constexpr const char* kMic = "app.quillon.mac.mic";
inline constexpr const char* kMixer = "app.quillon.mac.mixer";
inline constexpr const char* kSpeech = "app.quillon.mac.speech";
inline constexpr const char* kMicIO = "app.quillon.mac.mic-io";
inline constexpr const char* kMicControl = "app.quillon.mac.mic-control";
inline constexpr const char* kSystemTap = "app.quillon.mac.systemtap";
inline constexpr const char* kCallScan = "app.quillon.mac.call-scan";
inline constexpr const char* kInsurance = "app.quillon.mac.insurance";
inline constexpr const char* kInsuranceMic = "app.quillon.mac.insurance.mic";
}  // namespace queues

}  // namespace vell
