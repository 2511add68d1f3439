#pragma once
// What every Vell program does first, before it opens anything: files and folders it creates
// are the user's alone (file mode mask 077, whatever the shell or desktop set), and a peer
// that hangs up (a clipboard tool, an HTTP client, a closed pipe) is an error to handle
// where it happens, never a signal that kills the process. Call once, from main(), on the
// main thread before any other thread exists.
namespace vell::process {

void start();

}  // namespace vell::process
