#pragma once
// The main executor of the tray: tasks run on the Qt event loop of the GUI thread, so the
// core's services and the widgets share one thread. Made and destroyed on the GUI thread;
// post() and the timers may be called from any thread.
#include <QObject>

#include "base/executor.h"

namespace vell::tray {

class QtExecutor final : public QObject, public Executor {
public:
    QtExecutor();
    ~QtExecutor() override;

    void post(Task task) override;
    TimerHandle postAfter(double delaySeconds, Task task) override;
    TimerHandle repeat(double intervalSeconds, Task task) override;
    bool isCurrentThread() const override;

private:
    struct Repeating;
    void arm(const std::shared_ptr<Repeating>& timer);
};

}  // namespace vell::tray
