// LiveAdvice() -> s: JSON of the running recording's live advice: {"sessionId", "tiles"
//   [{id, kind, weight, atMs, title, text, data, updatedAt}], "message", "segmentsSent",
//   "segmentsDropped", "segmentsWaiting", "closed"}.
// Recordings() -> s: JSON array of the account's recordings (the service's results format,
//   see README "Reference service"), each with "offline" (why the copy kept here is shown)
//   or null.
// RecordingDetail(s id) -> s: one recording's results, with "offline" as above.
// RenameSpeakers(s id, s names) -> s: names is a JSON object {"1": "Ana", ...}; answers the
//   recording's results after the change.
// ShareRecording(s id) -> s: the link to the recording's summary and transcript.
// Every failure is the interface's error Failed (SignedOut when no account is
// signed in) with the sentence to show.
#include "platform/dbus/control_results.h"

#include <nlohmann/json.hpp>

#include "live/live_advisor.h"
#include "results/recording_results.h"
#include "results/results_messages.h"
#include "results/running_results.h"

namespace vell::dbus {

namespace {
using nlohmann::json;

json withOffline(const results::Fetched& f) {
    json j = results::encodeResult(f.result);
    j["offline"] = f.offlineBecause ? json(*f.offlineBecause) : json(nullptr);
    return j;
}

std::string unavailable() { return results::messages::kResultsUnavailable.str(); }

// The client's exit status tells signed out from other failures, so the error does too.
sdbus::Error failure(const std::string& sentence) {
    return sdbus::Error(results::meansSignedOut(sentence) ? errors::kSignedOut : errors::kFailed, sentence);
}
}  // namespace

void registerResultsControl(ControlContext& context) {
    const char* I = kControlInterface;
    auto* ctx = &context;
    context.object.registerMethod("LiveAdvice").onInterface(I).implementedAs([ctx](sdbus::Result<std::string>&& result) {
        ctx->onMain(std::move(result), [](auto& r) {
            auto* advisor = results::runningResults().advisor;
            r->returnResults(advisor ? live::toJson(advisor->advice.get()).dump() : json{{"tiles", json::array()}}.dump());
        });
    });
    context.object.registerMethod("Recordings").onInterface(I).implementedAs([ctx](sdbus::Result<std::string>&& result) {
        ctx->onMain(std::move(result), [](auto& r) {
            auto* all = results::runningResults().results;
            if (!all) return r->returnError(sdbus::Error(errors::kFailed, unavailable()));
            all->list([r](Expected<std::vector<results::Fetched>, std::string> list) {
                if (!list) return r->returnError(failure(list.error()));
                json out = json::array();
                for (const auto& f : *list) out.push_back(withOffline(f));
                r->returnResults(out.dump());
            });
        });
    });
    context.object.registerMethod("RecordingDetail").onInterface(I).implementedAs(
        [ctx](sdbus::Result<std::string>&& result, std::string id) {
            if (refused(result, arguments::recordingID(id))) return;
            ctx->onMain(std::move(result), [id](auto& r) {
                auto* all = results::runningResults().results;
                if (!all) return r->returnError(sdbus::Error(errors::kFailed, unavailable()));
                all->detail(id, [r](Expected<results::Fetched, std::string> f) {
                    if (!f) return r->returnError(failure(f.error()));
                    r->returnResults(withOffline(*f).dump());
                });
            });
        });
    context.object.registerMethod("RenameSpeakers").onInterface(I).implementedAs(
        [ctx](sdbus::Result<std::string>&& result, std::string id, std::string namesJson) {
            auto names = arguments::speakerNames(namesJson);
            if (refused(result, arguments::recordingID(id)) || refused(result, names)) return;
            ctx->onMain(std::move(result), [id, names = *names](auto& r) {
                auto* all = results::runningResults().results;
                if (!all) return r->returnError(sdbus::Error(errors::kFailed, unavailable()));
                all->renameSpeakers(id, names, [r](Expected<results::RecordingResult, std::string> done) {
                    if (!done) return r->returnError(failure(done.error()));
                    r->returnResults(results::encodeResult(*done).dump());
                });
            });
        });
    context.object.registerMethod("ShareRecording").onInterface(I).implementedAs(
        [ctx](sdbus::Result<std::string>&& result, std::string id) {
            if (refused(result, arguments::recordingID(id))) return;
            ctx->onMain(std::move(result), [id](auto& r) {
                auto* all = results::runningResults().results;
                if (!all) return r->returnError(sdbus::Error(errors::kFailed, unavailable()));
                all->share(id, [r](Expected<std::string, std::string> url) {
                    if (!url) return r->returnError(failure(url.error()));
                    r->returnResults(*url);
                });
            });
        });
}

}  // namespace vell::dbus
