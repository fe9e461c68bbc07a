#pragma once
// The per-user folders of the XDG base-directory convention, in one place for every program here.
// Pure functions of the environment at the time of the call; any thread.

#include <filesystem>

namespace xdg {

// $HOME when it is an absolute path, else the passwd entry's home; empty when neither is known
// (never "/" by accident, so nothing lands in "/.config").
std::filesystem::path userHome();

// $XDG_CONFIG_HOME, $XDG_STATE_HOME, $XDG_CACHE_HOME when absolute, else their defaults under the
// home (.config, .local/state, .cache); empty when no home is known.
std::filesystem::path configHome();
std::filesystem::path stateHome();
std::filesystem::path cacheHome();

// $XDG_RUNTIME_DIR when absolute, else empty (it has no default).
std::filesystem::path runtimeDir();

// The rule behind the four above, for tests: `value` when absolute, else `home / fallback`, else empty.
std::filesystem::path resolve(const char* value, const std::filesystem::path& home, const char* fallback);

}  // namespace xdg
