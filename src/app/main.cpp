#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "Application.h"
#include "Dispatch.h"
#include "EngineSettings.h"
#include "Environment.h"
#include "FileModes.h"
#include "LiveMode.h"
#include "Log.h"

namespace {

// A standard stream started closed (`>&-`) must stay unusable: otherwise the next file opened takes its
// number and results are written into it. Read-only /dev/null makes every write fail with EBADF.
void holdClosedStandardStreams() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (::fcntl(fd, F_GETFD) != -1) continue;
        const int held = ::open("/dev/null", O_RDONLY);
        if (held >= 0 && held != fd) {
            ::dup2(held, fd);
            ::close(held);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    using namespace velquin;
    holdClosedStandardStreams();
    const Environment::Switches switches = Environment::read();
    EngineSettings::install(switches.parameters);
    const std::vector<std::string> arguments(argv, argv + argc);
    const Dispatch dispatch = Dispatch::from(arguments);
    switch (dispatch.mode) {
        case Dispatch::Mode::help:
            return std::fputs(Dispatch::usage, stdout) >= 0 && std::fflush(stdout) == 0 ? 0 : 1;
        case Dispatch::Mode::analyze:
            return FileModes::analyze(dispatch.arguments, stdout, stderr);
        case Dispatch::Mode::timeline:
            return FileModes::timeline(dispatch.arguments, stdout, stderr);
        case Dispatch::Mode::chroma:
            return FileModes::chroma(dispatch.arguments, stdout, stderr);
        case Dispatch::Mode::live:
            return LiveMode::run(argc, argv, dispatch.arguments);
        case Dispatch::Mode::menuBar:
            break;
    }
    return runDesktopApp(argc, argv, [](std::string_view line) { Log::write(line); },
                         {.insistOnWayland = switches.nativeWayland});
}
