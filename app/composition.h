#pragma once
// Where the program's parts are put together. Audio backends, the API client and the
// automations join here as they are built; the core never reaches for them itself.
#include <functional>
#include <optional>
#include <string>

#include "recording/recorder_parts.h"

namespace vell::app {

// The parts of the process's recorder.
recording::RecorderParts recorderParts();

// Makes RecorderService::shared() use recorderParts(). Call once at start-up, before the
// recorder is first used.
void installComposition();

// Installs the Linux bindings behind the core's ports (audio files, conversion, voice
// detection, microphone engines and devices, secret store, HTTP). Idempotent; programs and
// tests call it first thing.
void installPlatformBindings();

class CoreServices;
// The process's core services (service client, signed-in identity, recorder, uploads),
// made on first use on the main executor after installComposition(). New recordings are
// stamped with its account.
CoreServices& core();

class Host;
// The process's host over core(), with the desktop's notifications, sleep and wake and the
// open-at-login entry; made on first use on the main executor. Only a program that owns the
// data folder and runs as the host (`vell daemon`, the tray, a `vell record` serving
// others) starts it.
Host& host();

}  // namespace vell::app
