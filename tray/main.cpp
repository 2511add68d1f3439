// vell-tray: the desktop application. The tray icon, its panel and the windows over the
// same core services as `vell daemon`.
#include "base/process_start.h"
#include "tray/startup.h"

int main(int argc, char** argv) {
    vell::process::start();
    return vell::tray::runTray(argc, argv);
}
