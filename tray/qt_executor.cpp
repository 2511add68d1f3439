#include "tray/qt_executor.h"

#include <QThread>
#include <QTimer>
#include <chrono>
#include <cmath>

namespace vell::tray {

namespace {
using SteadyClock = std::chrono::steady_clock;

int toMilliseconds(double seconds) { return seconds <= 0 ? 0 : int(std::ceil(seconds * 1000.0)); }
}  // namespace

// A repeating timer on the ideal timeline: tick n is due at start + n × interval, however
// late the ticks before it ran, so a slow tick never shifts the ones after it.
struct QtExecutor::Repeating {
    SteadyClock::time_point start;
    std::chrono::duration<double> interval;
    long long tick = 1;
    std::shared_ptr<std::atomic<bool>> cancelled;
    Task task;
};

QtExecutor::QtExecutor() = default;
QtExecutor::~QtExecutor() = default;

void QtExecutor::post(Task task) {
    // A queued call is an event in the GUI thread's queue: safe from any thread, run in order.
    QMetaObject::invokeMethod(this, [task = std::move(task)] { task(); }, Qt::QueuedConnection);
}

TimerHandle QtExecutor::postAfter(double delaySeconds, Task task) {
    auto cancelled = std::make_shared<std::atomic<bool>>(false);
    auto schedule = [this, delaySeconds, cancelled, task = std::move(task)]() mutable {
        if (cancelled->load()) return;
        QTimer::singleShot(toMilliseconds(delaySeconds), Qt::PreciseTimer, this, [cancelled, task = std::move(task)] {
            if (!cancelled->load()) task();
        });
    };
    // Timers belong to the thread that starts them: start them on the GUI thread.
    if (isCurrentThread()) schedule();
    else post(std::move(schedule));
    return TimerHandle(cancelled);
}

TimerHandle QtExecutor::repeat(double intervalSeconds, Task task) {
    auto timer = std::make_shared<Repeating>();
    timer->start = SteadyClock::now();
    timer->interval = std::chrono::duration<double>(intervalSeconds);
    timer->cancelled = std::make_shared<std::atomic<bool>>(false);
    timer->task = std::move(task);
    if (isCurrentThread()) arm(timer);
    else post([this, timer] { arm(timer); });
    return TimerHandle(timer->cancelled);
}

void QtExecutor::arm(const std::shared_ptr<Repeating>& timer) {
    if (timer->cancelled->load()) return;
    const auto due = timer->start + std::chrono::duration_cast<SteadyClock::duration>(timer->interval * double(timer->tick));
    const double wait = std::chrono::duration<double>(due - SteadyClock::now()).count();
    QTimer::singleShot(toMilliseconds(wait), Qt::PreciseTimer, this, [this, timer] {
        if (timer->cancelled->load()) return;
        timer->task();
        ++timer->tick;
        arm(timer);
    });
}

bool QtExecutor::isCurrentThread() const { return QThread::currentThread() == thread(); }

}  // namespace vell::tray
