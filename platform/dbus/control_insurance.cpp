#include "platform/dbus/control_insurance.h"

#include <thread>
#include <utility>

#include "app/agent_requests.h"
#include "base/runtime.h"
#include "insurance/insurance_agent_requests.h"
#include "insurance/insurance_recorder.h"
#include "insurance/insurance_status.h"

namespace vell::dbus {

namespace {
insurance::InsuranceRecorder& recorder() { return insurance::InsuranceRecorder::shared(); }
// With the newest answers to agent requests, so whoever looks at the status also sees what
// audio left the computer.
std::string statusJson(app::Host& host) {
    auto status = insurance::statusOf(recorder());
    status.agentRequests = app::agentRequests(host.core()).recentAnswers();
    return insurance::toJson(status).dump();
}

// The export writes wherever the caller said, which may be slow storage: it runs on a thread
// of its own so the main executor never waits on it, and the call is answered with an error
// once kExportSeconds pass (the copy goes on and ends by itself).
constexpr double kExportSeconds = 60;

void exportOffMain(const std::shared_ptr<sdbus::Result<int32_t>>& r, insurance::InsuranceBufferStore store,
                   std::vector<insurance::InsuranceChunk> chunks, std::string path) {
    auto answered = std::make_shared<bool>(false);
    // The limit holds the call weakly: a host that quits while the copy is stuck (a FIFO nobody
    // reads) drops the pending timer after its bus connection, and the call must not outlive it.
    auto limit = runtime::main().postAfter(kExportSeconds, [weak = std::weak_ptr(r), answered, path] {
        auto r = weak.lock();
        if (!r || std::exchange(*answered, true)) return;
        r->returnError(sdbus::Error(errors::kFailed, path + ": not written within " +
                                                         std::to_string(int(kExportSeconds)) + " s"));
    });
    std::thread([r, answered, limit, store = std::move(store), chunks = std::move(chunks), path = std::move(path)]() mutable {
        auto ok = store.concatenate(chunks, path);
        runtime::main().post([r, answered, limit, ok = std::move(ok), count = int32_t(chunks.size())]() mutable {
            if (std::exchange(*answered, true)) return;
            limit.cancel();
            if (!ok) return r->returnError(sdbus::Error(errors::kFailed, ok.error()));
            r->returnResults(count);
        });
    }).detach();
}
}  // namespace

void registerInsuranceControl(ControlContext& context) {
    const char* I = kControlInterface;
    auto& object = context.object;
    auto* ctx = &context;

    object.registerMethod("InsuranceStatus").onInterface(I).implementedAs([ctx](sdbus::Result<std::string>&& result) {
        ctx->onMain(std::move(result), [ctx](auto& r) { r->returnResults(statusJson(ctx->host)); });
    });
    object.registerMethod("InsuranceEnable").onInterface(I).implementedAs([ctx](sdbus::Result<std::string>&& result) {
        ctx->onMain(std::move(result), [ctx](auto& r) {
            recorder().acceptPrivacyAndEnable();
            // The start finishes on the microphone queue; answer once it has, or after 3 s.
            auto answered = std::make_shared<bool>(false);
            auto answer = [host = &ctx->host, r, answered] {
                if (*answered) return;
                *answered = true;
                r->returnResults(statusJson(*host));
            };
            auto poll = std::make_shared<TimerHandle>();
            *poll = runtime::main().repeat(0.05, [answer, poll, started = runtime::clock().uptime()] {
                auto& rec = recorder();
                if (rec.starting() && runtime::clock().uptime() - started < 3) return;
                poll->cancel();
                answer();
            });
        });
    });
    object.registerMethod("InsuranceDisable").onInterface(I).implementedAs([ctx](sdbus::Result<std::string>&& result) {
        ctx->onMain(std::move(result), [ctx](auto& r) {
            recorder().disable();
            r->returnResults(statusJson(ctx->host));
        });
    });
    object.registerMethod("InsuranceSetWindow").onInterface(I).implementedAs(
        [ctx](sdbus::Result<int32_t>&& result, int32_t minutes) {
            ctx->onMain(std::move(result), [minutes](auto& r) { r->returnResults(int32_t(recorder().setWindowMinutes(minutes))); });
        });
    object.registerMethod("InsuranceChunks").onInterface(I).implementedAs([ctx](sdbus::Result<std::string>&& result) {
        ctx->onMain(std::move(result), [](auto& r) { r->returnResults(insurance::chunksJson(recorder().store().chunks()).dump()); });
    });
    object.registerMethod("InsuranceExport").onInterface(I).implementedAs(
        [ctx](sdbus::Result<int32_t>&& result, int32_t minutes, std::string path) {
            if (refused(result, arguments::minutes(minutes)) || refused(result, arguments::exportPath(path))) return;
            ctx->onMain(std::move(result), [minutes, path](auto& r) {
                auto& rec = recorder();
                // The newest audio goes into a sealed chunk first; the writer's queue never
                // waits on the main executor, so waiting for it here is safe.
                rec.writer().seal();
                const auto now = runtime::clock().now();
                const auto from = now - std::chrono::minutes(minutes);
                auto chunks = rec.store().chunks(from, now + std::chrono::hours(1));
                std::erase_if(chunks, [](const auto& c) { return c.isOpen; });
                exportOffMain(r, rec.store(), std::move(chunks), path);
            });
        });
}

}  // namespace vell::dbus
