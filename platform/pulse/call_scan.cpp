#include "platform/pulse/call_scan.h"

#include <pulse/pulseaudio.h>
#include <unistd.h>

#include <map>
#include <string>

#include "audio/errors.h"
#include "base/log.h"
#include "platform/pulse/call_identifiers.h"
#include "platform/pulse/pulse_connection.h"

namespace vell::pulse {

namespace {

const log::Logger kLog("CallScan");

struct Props {
    StreamOwner owner;
    std::string name;  // "application.name"
};

std::string read(const pa_proplist* p, const char* key) {
    const char* v = p ? pa_proplist_gets(p, key) : nullptr;
    return v ? v : "";
}

Props propsOf(const pa_proplist* p) {
    Props out;
    out.owner.portalAppID = read(p, "pipewire.access.portal.app_id");
    out.owner.applicationID = read(p, PA_PROP_APPLICATION_ID);
    out.owner.binary = read(p, PA_PROP_APPLICATION_PROCESS_BINARY);
    out.owner.processID = read(p, PA_PROP_APPLICATION_PROCESS_ID);
    out.name = read(p, PA_PROP_APPLICATION_NAME);
    return out;
}

// The stream's own properties win over its client's.
Props merged(const Props& client, const Props& stream) {
    auto pick = [](const std::string& s, const std::string& c) { return s.empty() ? c : s; };
    Props out;
    out.owner.portalAppID = pick(stream.owner.portalAppID, client.owner.portalAppID);
    out.owner.applicationID = pick(stream.owner.applicationID, client.owner.applicationID);
    out.owner.binary = pick(stream.owner.binary, client.owner.binary);
    out.owner.processID = pick(stream.owner.processID, client.owner.processID);
    out.name = pick(stream.name, client.name);
    return out;
}

struct Stream {
    bool input = false;
    uint32_t client = PA_INVALID_INDEX;
    uint32_t ownerModule = PA_INVALID_INDEX;
    bool corked = false;
    bool levelMeter = false;
    Props props;
};

struct Listing {
    Connection* connection;
    std::map<uint32_t, Props> clients;
    std::vector<Stream> streams;
};

void clientCallback(pa_context*, const pa_client_info* i, int eol, void* userdata) {
    auto* l = static_cast<Listing*>(userdata);
    if (eol == 0 && i) l->clients[i->index] = propsOf(i->proplist);
    l->connection->signal();
}

void sourceOutputCallback(pa_context*, const pa_source_output_info* i, int eol, void* userdata) {
    auto* l = static_cast<Listing*>(userdata);
    if (eol == 0 && i) {
        Stream s{true, i->client, i->owner_module, i->corked != 0, false, propsOf(i->proplist)};
        // Volume meters record with peak detection: the server hands them peaks, not audio.
        s.levelMeter = i->resample_method && std::string(i->resample_method) == "peaks";
        l->streams.push_back(std::move(s));
    }
    l->connection->signal();
}

void sinkInputCallback(pa_context*, const pa_sink_input_info* i, int eol, void* userdata) {
    auto* l = static_cast<Listing*>(userdata);
    if (eol == 0 && i) l->streams.push_back({false, i->client, i->owner_module, i->corked != 0, false, propsOf(i->proplist)});
    l->connection->signal();
}

}  // namespace

PulseCallScanner::PulseCallScanner()
    : connection_(std::make_unique<Connection>("Vell call detection", "vell-callscan")),
      queue_(std::make_unique<SerialQueue>(queues::kCallScan)) {}

PulseCallScanner::~PulseCallScanner() { queue_.reset(); }

void PulseCallScanner::scan(std::function<void(std::optional<automation::CallerScan>)> done) {
    queue_->post([this, done = std::move(done)] { done(scanNow()); });
}

std::optional<automation::CallerScan> PulseCallScanner::scanNow() {
    bool classified = true;
    auto processes = processesNow(classified);
    if (!processes) return std::nullopt;
    return automation::callersFrom(*processes, classified);
}

std::optional<std::vector<automation::CallAudioProcess>> PulseCallScanner::processesNow(bool& allClassified) {
    Listing listing{connection_.get(), {}, {}};
    try {
        connection_->connect();
        Connection::Lock lock(*connection_);
        auto* context = connection_->context();
        if (!connection_->await(pa_context_get_client_info_list(context, &clientCallback, &listing),
                                "pa_context_get_client_info_list") ||
            !connection_->await(pa_context_get_source_output_info_list(context, &sourceOutputCallback, &listing),
                                "pa_context_get_source_output_info_list") ||
            !connection_->await(pa_context_get_sink_input_info_list(context, &sinkInputCallback, &listing),
                                "pa_context_get_sink_input_info_list")) {
            return std::nullopt;
        }
    } catch (const std::exception& e) {
        kLog.debug(std::string("no look at the audio users: ") + e.what());
        return std::nullopt;
    }

    static const std::string ownPID = std::to_string(::getpid());
    allClassified = true;
    // One process per client; streams the server's modules make are the server's own.
    std::map<std::string, automation::CallAudioProcess> processes;
    for (const auto& s : listing.streams) {
        if (s.corked || s.levelMeter) continue;
        std::string key, id;
        Props props = s.props;
        if (s.client != PA_INVALID_INDEX) {
            if (auto c = listing.clients.find(s.client); c != listing.clients.end()) props = merged(c->second, s.props);
            key = "client " + std::to_string(s.client);
            id = identifierOf(props.owner, ownPID);
        } else if (s.ownerModule != PA_INVALID_INDEX) {
            key = "module " + std::to_string(s.ownerModule);
            id = "pulseaudio";
        }
        if (id.empty()) {
            allClassified = false;  // a running stream nobody can be named for
            continue;
        }
        auto& p = processes[key];
        p.bundleID = id;
        if (p.applicationName.empty()) p.applicationName = props.name;
        if (s.input) p.input = true;
        else p.output = true;
        if (!p.output) p.output = false;
    }
    std::vector<automation::CallAudioProcess> out;
    for (auto& [key, p] : processes) out.push_back(std::move(p));
    return out;
}

}  // namespace vell::pulse
