#pragma once
// The desktop application's start, for the entry point's rows that name no terminal mode:
//
//     return velquin::runDesktopApp(argc, argv,
//                                   [](std::string_view line) { velquin::diagnosticLog::write(line); });
//
// Prefers X11 (XWayland) on a Wayland session, creates the QApplication ("Velquin" as organization
// and application, so the settings live in ~/.config/Velquin/Velquin.conf), creates the DesktopApp,
// launches it from inside the event loop and runs the loop until the user quits from the menu. The
// service is stopped when the application is about to quit. When another Velquin already runs, asks
// it to show its menu and returns 0 at once. Returns 0 when the loop ends.
// On native Wayland, where the bar can be neither placed nor kept above, says so once in the log and
// on standard error, and the panel item carries the reading.

#include "ui/LogSink.h"

namespace velquin {

struct LaunchOptions {
    // Opens the drop shelf briefly after launch, to check where it lands.
    bool showShelfAtLaunch = false;
    // Stays on native Wayland even where XWayland is reachable (VELQUIN_NATIVE_WAYLAND).
    bool insistOnWayland = false;
};

int runDesktopApp(int argc, char** argv, LogSink log, LaunchOptions options = {});

}  // namespace velquin
