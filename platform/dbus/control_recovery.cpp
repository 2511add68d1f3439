// RecoverStart(s range, i minutes) -> i run: starts a run of the host's recovery controller
//   ("minute", "five", "custom" with minutes, "all"); 0 when nothing is selected.
// RecoverProgress(i run) -> s: JSON {"run", "phase" (idle|transcribing|improving|failed),
//   "text", "display", "message", "transcript" {text, fromMs, toMs} once final}; "phase"
//   "stale" when a later run replaced that one; "playing", "position" (s), "copyConfirmation".
// RecoverPlay () -> s: plays the preview of the selection: {"playing", "message"}.
// RecoverStopPlaying (): stops the preview and removes its file.
// RecoverCopy () -> s: copies the text: {"copied", "confirmation", "problem" (why nothing can
//   be copied at all, when so)}.
#include "platform/dbus/control_recovery.h"

#include <nlohmann/json.hpp>

#include "app/clipboard.h"
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
        deps.copy = [](const std::string& text) {
            auto board = app::clipboard();
            return board && board->copy(text);
        };
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
            auto chosen = arguments::recoverRange(range, minutes);
            if (refused(result, chosen)) return;
            ctx->onMain(std::move(result), [ctx, chosen = *chosen](auto& r) {
                auto& c = controller(ctx->host);
                if (!ctx->host.core().appState().accountID()) {
                    return r->returnError(sdbus::Error(errors::kSignedOut, insurance::messages::kSignInToTranscribe.str()));
                }
                c.choose(chosen.range, chosen.minutes);
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
                out["playing"] = c.isPlaying.get();
                out["position"] = c.position.get();
                out["copyConfirmation"] = c.copyConfirmation.get();
                if (auto t = c.transcript.get()) out["transcript"] = {{"text", t->text}, {"fromMs", ms(t->from)}, {"toMs", ms(t->to)}};
                r->returnResults(out.dump());
            });
        });
    context.object.registerMethod("RecoverPlay").onInterface(I).implementedAs([ctx](sdbus::Result<std::string>&& result) {
        ctx->onMain(std::move(result), [ctx](auto& r) {
            auto& c = controller(ctx->host);
            c.play();
            const auto phase = c.phase.get();
            r->returnResults(nlohmann::json{{"playing", c.isPlaying.get()},
                                            {"message", phase.kind == insurance::Phase::Kind::failed ? phase.message : ""}}
                                 .dump());
        });
    });
    context.object.registerMethod("RecoverStopPlaying").onInterface(I).implementedAs([ctx](sdbus::Result<>&& result) {
        ctx->onMain(std::move(result), [ctx](auto& r) {
            controller(ctx->host).stop();
            r->returnResults();
        });
    });
    context.object.registerMethod("RecoverCopy").onInterface(I).implementedAs([ctx](sdbus::Result<std::string>&& result) {
        ctx->onMain(std::move(result), [ctx](auto& r) {
            auto& c = controller(ctx->host);
            c.copy();
            const std::string confirmation = c.copyConfirmation.get();
            nlohmann::json out{{"copied", confirmation == insurance::messages::kCopied.str()}, {"confirmation", confirmation}};
            auto board = app::clipboard();
            if (!board) out["problem"] = insurance::messages::kCouldNotCopy.str();
            else if (auto why = board->unavailable()) out["problem"] = *why;
            r->returnResults(out.dump());
        });
    });
}

}  // namespace vell::dbus
