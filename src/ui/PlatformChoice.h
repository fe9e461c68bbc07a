#pragma once
// Which Qt platform the bar runs on. Native Wayland lets a client neither place its windows nor keep
// them above others nor see other clients' drags, so on a Wayland session Velquin runs through XWayland
// whenever an X display is reachable, even when QT_QPA_PLATFORM=wayland is set for every program of
// the session; only the user's explicit wish (the "nativeWayland" setting or VELQUIN_NATIVE_WAYLAND)
// keeps native Wayland then.

#include <string>

namespace velquin {

struct PlatformInputs {
    std::string qpaPlatform;      // QT_QPA_PLATFORM as set
    bool waylandSession = false;  // WAYLAND_DISPLAY set or XDG_SESSION_TYPE=wayland
    bool xDisplaySet = false;     // DISPLAY set
    bool insistOnWayland = false;
};

struct PlatformDecision {
    bool tryXWayland = false;   // switch to xcb when the X display answers
    bool forceWayland = false;  // the user insists and nothing was chosen yet: wayland
    std::string why;            // for the log
};

// Pure: what to do with these inputs.
PlatformDecision decidePlatform(const PlatformInputs& inputs);

// Call before the QApplication is created. Reads the environment and, when decidePlatform says so and
// the X display answers, sets QT_QPA_PLATFORM=xcb (or wayland, when insisted on) and returns the
// reason; otherwise changes nothing and returns an empty text.
std::string preferX11Platform(bool insistOnWayland);

}  // namespace velquin
