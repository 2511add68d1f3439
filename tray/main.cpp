// vell-tray: the desktop application. The tray icon, its panel and the windows over the
// same core services as `vell daemon`.
#include "tray/startup.h"

int main(int argc, char** argv) { return vell::tray::runTray(argc, argv); }
