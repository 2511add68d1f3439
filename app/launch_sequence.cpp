#include "app/launch_sequence.h"

#include "base/preference_keys.h"

namespace vell::app {

LaunchSequence::LaunchSequence(LaunchSteps steps, UserDefaults& defaults, Executor& main)
    : steps_(std::move(steps)), defaults_(defaults), main_(main) {}

LaunchSequence::~LaunchSequence() { cancel(); }

void LaunchSequence::run() {
    if (!defaults_.boolValue(prefs::kMainWindowFrameReset).value_or(false)) {
        if (steps_.removeMainWindowFrame) steps_.removeMainWindowFrame();
        defaults_.set(prefs::kMainWindowFrameReset, true);
    }
    auto cancelled = cancelled_;
    main_.post([this, cancelled] {
        if (*cancelled) return;
        if (steps_.registerNotificationCategories) steps_.registerNotificationCategories(notificationCategories());
        for (auto* step : {&steps_.startInsuranceRecorder, &steps_.startAgentPoller, &steps_.startCallRecorder,
                           &steps_.startDiscardedPurge, &steps_.startCalendarRecorder}) {
            if (*step) (*step)();
        }
        tipTimer_ = main_.postAfter(kMenuBarTipDelaySeconds, [this, cancelled] {
            if (*cancelled || !steps_.showMenuBarTip) return;
            if (!defaults_.boolValue(prefs::kMenuBarTipShown).value_or(false)) steps_.showMenuBarTip();
        });
    });
}

void LaunchSequence::cancel() {
    *cancelled_ = true;
    tipTimer_.cancel();
}

}  // namespace vell::app
