#include "platform/pulse/sink_inputs.h"

#include <pulse/pulseaudio.h>

#include <optional>

#include "audio/errors.h"

namespace vell::pulse {

namespace {
struct Listing {
    Connection* connection;
    std::optional<uint32_t> sink;
    std::vector<std::pair<uint32_t, SinkInput>> inputs;  // (sink, input)
};
}  // namespace

std::vector<SinkInput> sinkInputsOf(Connection& connection, const std::string& sinkName) {
    Connection::Lock lock(connection);
    if (!connection.connected()) throw audio::CoreAudioError(PA_ERR_CONNECTIONTERMINATED, "pa_context_get_sink_input_info_list");
    Listing listing{&connection, std::nullopt, {}};
    if (!connection.await(pa_context_get_sink_info_by_name(
                              connection.context(), sinkName.c_str(),
                              [](pa_context*, const pa_sink_info* i, int eol, void* userdata) {
                                  auto* l = static_cast<Listing*>(userdata);
                                  if (eol == 0 && i) l->sink = i->index;
                                  l->connection->signal();
                              },
                              &listing),
                          "pa_context_get_sink_info_by_name") ||
        !connection.await(pa_context_get_sink_input_info_list(
                              connection.context(),
                              [](pa_context*, const pa_sink_input_info* i, int eol, void* userdata) {
                                  auto* l = static_cast<Listing*>(userdata);
                                  if (eol == 0 && i) {
                                      SinkInput input{i->index, i->corked != 0, ""};
                                      if (const char* pid = pa_proplist_gets(i->proplist, PA_PROP_APPLICATION_PROCESS_ID))
                                          input.processID = pid;
                                      l->inputs.emplace_back(i->sink, std::move(input));
                                  }
                                  l->connection->signal();
                              },
                              &listing),
                          "pa_context_get_sink_input_info_list")) {
        throw audio::CoreAudioError(connection.lastError(), "pa_context_get_sink_input_info_list");
    }
    std::vector<SinkInput> out;
    if (!listing.sink) return out;
    for (auto& [sink, input] : listing.inputs)
        if (sink == *listing.sink) out.push_back(std::move(input));
    return out;
}

}  // namespace vell::pulse
