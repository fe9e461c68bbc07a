#include <gtest/gtest.h>

#include <filesystem>

#include "support/TestSupport.h"
#include "system/XdgPaths.h"

namespace velquin {
namespace {

using std::filesystem::path;

// A relative value is a mistake in someone's profile, not a folder to write into wherever the program
// was started: the convention says to ignore it.
TEST(XdgPaths, OnlyAbsoluteValuesCountAndEveryFolderHasItsDefault) {
    EXPECT_EQ(xdg::resolve("/abs", "/home/u", ".cache"), path("/abs"));
    EXPECT_EQ(xdg::resolve("relative/dir", "/home/u", ".cache"), path("/home/u/.cache"));
    EXPECT_EQ(xdg::resolve("", "/home/u", ".cache"), path("/home/u/.cache"));
    EXPECT_EQ(xdg::resolve(nullptr, path(), ".cache"), path());

    const test::ScopedEnv home("HOME", "/home/u");
    const test::ScopedEnv cache("XDG_CACHE_HOME", "cache");
    const test::ScopedEnv config("XDG_CONFIG_HOME", std::nullopt);
    const test::ScopedEnv state("XDG_STATE_HOME", "/s");
    const test::ScopedEnv runtime("XDG_RUNTIME_DIR", "run");
    EXPECT_EQ(xdg::cacheHome(), path("/home/u/.cache"));
    EXPECT_EQ(xdg::configHome(), path("/home/u/.config"));
    EXPECT_EQ(xdg::stateHome(), path("/s"));
    EXPECT_EQ(xdg::runtimeDir(), path()) << "no default for the runtime folder";

    const test::ScopedEnv relativeHome("HOME", "u");
    EXPECT_TRUE(xdg::userHome().is_absolute()) << "the passwd entry's home instead";
}

}  // namespace
}  // namespace velquin
