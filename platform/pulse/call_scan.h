#pragma once
// Who is using audio, read from the sound server's introspection: a record stream
// (source-output) that is not corked is a program running input, a playback stream
// (sink-input) that is not corked one running output. Streams are grouped by their
// owner (the client) and named as call_identifiers.h says; streams the server makes for
// its own modules belong to the sound server; level meters (peak-detect streams) are
// skipped. A running stream whose owner cannot be named makes the scan incomplete. The
// scan runs on the serial queue "app.quillon.mac.call-scan", on its own connection.
#include <memory>
#include <optional>
#include <vector>

#include "automation/call_scan.h"
#include "base/serial_queue.h"

namespace vell::pulse {

class Connection;

class PulseCallScanner final : public automation::CallScanner {
public:
    PulseCallScanner();
    ~PulseCallScanner() override;

    void scan(std::function<void(std::optional<automation::CallerScan>)> done) override;

    // One look, on the calling thread (the queue's, or a command's); nothing when the
    // server cannot be reached or does not answer.
    std::optional<automation::CallerScan> scanNow();
    // The processes behind the last look, before they were grouped (for status).
    std::optional<std::vector<automation::CallAudioProcess>> processesNow(bool& allClassified);

private:
    std::unique_ptr<Connection> connection_;
    // Last member: its thread ends before the connection goes.
    std::unique_ptr<SerialQueue> queue_;
};

}  // namespace vell::pulse
