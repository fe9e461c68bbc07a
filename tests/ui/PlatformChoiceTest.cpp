#include <gtest/gtest.h>

#include "ui/PlatformChoice.h"

namespace velquin {
namespace {

TEST(PlatformChoice, XWaylandWheneverReachableUnlessTheUserInsists) {
    struct Case {
        PlatformInputs in;
        bool xwayland;
    };
    const Case cases[] = {
        // A Wayland session with an X display: XWayland, also over a session-wide wayland choice.
        {{"", true, true, false}, true},
        {{"wayland", true, true, false}, true},
        {{"wayland-egl", true, true, false}, true},
        {{"wayland;xcb", true, true, false}, true},
        // The user's explicit wish, another platform, no X display or no Wayland session: as it is.
        {{"wayland", true, true, true}, false},
        {{"xcb", true, true, false}, false},
        {{"offscreen", true, true, false}, false},
        {{"wayland", true, false, false}, false},
        {{"", false, true, false}, false},
    };
    for (const Case& c : cases) {
        const PlatformDecision d = decidePlatform(c.in);
        EXPECT_EQ(d.tryXWayland, c.xwayland) << c.in.qpaPlatform << " insist=" << c.in.insistOnWayland;
        EXPECT_EQ(d.why.empty(), !c.xwayland);
        EXPECT_FALSE(d.forceWayland);
    }
    // Insisting with nothing chosen yet chooses Wayland, since Qt alone may pick X11.
    const PlatformDecision insisted = decidePlatform({"", true, true, true});
    EXPECT_TRUE(insisted.forceWayland && !insisted.tryXWayland && !insisted.why.empty());
    // The log says why the user's QT_QPA_PLATFORM was not followed, and how to have it followed.
    const std::string why = decidePlatform({"wayland", true, true, false}).why;
    EXPECT_NE(why.find("QT_QPA_PLATFORM=wayland"), std::string::npos) << why;
    EXPECT_NE(why.find("VELQUIN_NATIVE_WAYLAND"), std::string::npos) << why;
}

}  // namespace
}  // namespace velquin
