#pragma once
// Which Qt platform the bar runs on. Native Wayland lets a client neither place its windows nor see
// other clients' drags, so on a Wayland session Velquin runs through XWayland when it can.

namespace velquin {

// Call before the QApplication is created. When the user has not chosen a platform
// (QT_QPA_PLATFORM empty), the session is Wayland and an X display is reachable, sets
// QT_QPA_PLATFORM=xcb and returns true; otherwise changes nothing and returns false.
bool preferX11Platform();

}  // namespace velquin
