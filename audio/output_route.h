#pragma once
// Where the computer's sound goes: the default output device, and whether what it plays can
// reach the microphone through the air. The Pulse binding implements the watcher and the
// composition root installs its factory; without one the route is unknown, which counts as
// loudspeakers (the safe side for echo cancellation).
#include <functional>
#include <memory>
#include <string>

namespace vell::audio {

enum class OutputKind { unknown, speakers, headphones, headset, bluetooth };

struct OutputRoute {
    OutputKind kind = OutputKind::unknown;
    std::string device;  // the output's name on the sound server (empty when unknown)
    std::string port;    // its active port, when it has ports

    // Headphones, headsets and Bluetooth devices keep what they play away from the microphone.
    bool acousticPath() const { return kind == OutputKind::speakers || kind == OutputKind::unknown; }
    bool operator==(const OutputRoute&) const = default;
};

// "speakers", "headphones", ...: the words of logs and of the status JSON.
const char* outputKindName(OutputKind kind);

// What an output device says about itself, as the sound server describes it.
struct OutputDeviceTraits {
    std::string portType;    // "headphones", "headset", "speaker", "bluetooth", ... (empty: none)
    std::string formFactor;  // "headphone", "headset", "speaker", "internal", ...
    std::string bus;         // "bluetooth", "usb", "pci", ...
};
// The kind of output these traits describe. The active port wins (a laptop's analog output
// switches between speaker and headphones on the same device); then the form factor; then
// a Bluetooth bus (loudspeakers on Bluetooth say so in their form factor).
OutputKind classifyOutput(const OutputDeviceTraits& traits);

// Follows the default output while started; onChange runs on the watcher's own thread,
// once at start and again whenever the route changed.
class OutputRouteWatcher {
public:
    using Factory = std::function<std::unique_ptr<OutputRouteWatcher>()>;
    static void setFactory(Factory factory);
    // Absent when no factory is installed.
    static std::unique_ptr<OutputRouteWatcher> make();

    virtual ~OutputRouteWatcher() = default;
    // Never throws: a sound server that cannot be reached leaves the route unknown.
    virtual void start(std::function<void(const OutputRoute&)> onChange) = 0;
    virtual void stop() = 0;  // no call of onChange once it returned
};

}  // namespace vell::audio
