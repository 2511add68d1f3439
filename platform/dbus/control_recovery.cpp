// RecoverStart(s range, i minutes) -> i run: starts a run of the host's recovery controller
//   ("minute", "five", "custom" with minutes, "all"); 0 when nothing is selected.
// RecoverProgress(i run) -> s: JSON {"run", "phase" (idle|transcribing|improving|failed),
//   "text", "display", "message", "transcript" {text, fromMs, toMs} once final}; "phase"
//   "stale" when a later run replaced that one.
#include "platform/dbus/control_recovery.h"

#include <nlohmann/json.hpp>

#include "insurance/insurance_messages.h"
#include "insurance/insurance_recorder.h"
#include "insurance/insurance_recovery_controller.h"

namespace vell::dbus {

namespace {
using insurance::InsuranceRecoveryController;

InsuranceRecoveryController& controller(app::Host& host) {
    static InsuranceRecoveryController* made = [&host] {
        auto deps = insurance::recoveryDependencies(insurance::InsuranceRecorder::shared(), host.core().client());
        auto* state = &host.core().appState();
        deps.signedIn = [state] { return state->phase.get() == app::AppState::Phase::signedIn; };
        deps.accountID = [state] { return state->accountID(); };
        return new InsuranceRecoveryController(std::move(deps));
    }();
    return *made;
}

std::string phaseName(insurance::Phase::Kind kind) {
    switch (kind) {
        case insurance::Phase::Kind::idle: return "idle";
        case insurance::Phase::Kind::transcribing: return "transcribing";
        case insurance::Phase::Kind::improving: return "improving";
        case insurance::Phase::Kind::failed: return "failed";
    }
    return "idle";
}

long long ms(WallTime t) { return std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count(); }
}  // namespace

void registerRecoveryControl(ControlContext& context) {
    const char* I = kControlInterface;
    auto* ctx = &context;
    context.object.registerMethod("RecoverStart").onInterface(I).implementedAs(
        [ctx](sdbus::Result<int32_t>&& result, std::string range, int32_t minutes) {
            ctx->onMain(std::move(result), [ctx, range, minutes](auto& r) {
                auto& c = controller(ctx->host);
                if (!ctx->host.core().appState().accountID()) {
                    return r->returnError(sdbus::Error(errors::kSignedOut, insurance::messages::kSignInToTranscribe.str()));
                }
                auto chosen = range == "five" ? insurance::Range::lastFive
                            : range == "custom" ? insurance::Range::custom
                            : range == "all" ? insurance::Range::all : insurance::Range::lastMinute;
                c.choose(chosen, minutes);
                r->returnResults(int32_t(c.selectedChunks().empty() ? 0 : c.run()));
            });
        });
    context.object.registerMethod("RecoverProgress").onInterface(I).implementedAs(
        [ctx](sdbus::Result<std::string>&& result, int32_t run) {
            ctx->onMain(std::move(result), [ctx, run](auto& r) {
                auto& c = controller(ctx->host);
                const auto phase = c.phase.get();
                nlohmann::json out = {{"run", c.run()}, {"phase", run == c.run() ? phaseName(phase.kind) : "stale"},
                                      {"text", c.text.get()}, {"display", c.displayText()}, {"message", phase.message}};
                if (auto t = c.transcript.get()) out["transcript"] = {{"text", t->text}, {"fromMs", ms(t->from)}, {"toMs", ms(t->to)}};
                r->returnResults(out.dump());
            });
        });
}

}  // namespace vell::dbus
