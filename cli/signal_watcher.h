#pragma once
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <functional>
#include <thread>

namespace vell::cli {

// Ctrl-C, SIGTERM, SIGHUP (a closed terminal or session), SIGQUIT (and SIGUSR1, our own
// wake-up) are taken by one thread with sigwait, so a command stops on its main loop like on
// any other request: a host that quits this way erases the insurance buffer as any quit does. Make it first in a command,
// before any thread exists, so that every thread inherits the mask.
class SignalWatcher {
public:
    SignalWatcher() {
        sigemptyset(&set_);
        sigaddset(&set_, SIGINT);
        sigaddset(&set_, SIGTERM);
        sigaddset(&set_, SIGHUP);
        sigaddset(&set_, SIGQUIT);
        sigaddset(&set_, SIGUSR1);
        // Before any other thread exists, so that every thread inherits the mask.
        pthread_sigmask(SIG_BLOCK, &set_, &previous_);
    }
    ~SignalWatcher() {
        if (thread_.joinable()) {
            done_ = true;
            pthread_kill(thread_.native_handle(), SIGUSR1);
            thread_.join();
        }
        pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    }
    void watch(std::function<void()> onStop) {
        thread_ = std::thread([this, onStop = std::move(onStop)] {
            while (!done_) {
                int signal = 0;
                if (sigwait(&set_, &signal) != 0) continue;
                if (done_) return;
                if (signal != SIGUSR1) onStop();
            }
        });
    }

private:
    sigset_t set_{}, previous_{};
    std::atomic<bool> done_{false};
    std::thread thread_;
};

}  // namespace vell::cli
