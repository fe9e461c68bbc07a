#include "system/XdgPaths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace xdg {

namespace {

bool isAbsolute(const char* text) {
    return text && text[0] == '/';
}

}  // namespace

std::filesystem::path userHome() {
    if (const char* home = std::getenv("HOME"); isAbsolute(home)) return home;
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
        isAbsolute(found->pw_dir) && std::filesystem::path(found->pw_dir) != "/")
        return found->pw_dir;
    return {};
}

std::filesystem::path resolve(const char* value, const std::filesystem::path& home, const char* fallback) {
    if (isAbsolute(value)) return value;
    if (home.empty()) return {};
    return home / fallback;
}

std::filesystem::path configHome() {
    return resolve(std::getenv("XDG_CONFIG_HOME"), userHome(), ".config");
}
std::filesystem::path stateHome() {
    return resolve(std::getenv("XDG_STATE_HOME"), userHome(), ".local/state");
}
std::filesystem::path cacheHome() {
    return resolve(std::getenv("XDG_CACHE_HOME"), userHome(), ".cache");
}

std::filesystem::path runtimeDir() {
    const char* dir = std::getenv("XDG_RUNTIME_DIR");
    return isAbsolute(dir) ? std::filesystem::path(dir) : std::filesystem::path();
}

}  // namespace xdg
