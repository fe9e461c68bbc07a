#include <cstdio>
#include <string>
#include <vector>

#include "analysis/EngineSettings.h"
#include "app/Dispatch.h"
#include "app/Environment.h"
#include "app/FileModes.h"
#include "app/LiveMode.h"
#include "app/Log.h"
#include "system/StandardStreams.h"
#include "ui/Application.h"

int main(int argc, char** argv) {
    using namespace velquin;
    holdClosedStandardStreams();
    const environment::Switches switches = environment::read();
    engineSettings::install(switches.parameters);
    const std::vector<std::string> arguments(argv, argv + argc);
    const Dispatch dispatch = Dispatch::from(arguments);
    switch (dispatch.mode) {
        case Dispatch::Mode::help:
            return std::fputs(Dispatch::usage, stdout) >= 0 && std::fflush(stdout) == 0 ? 0 : 1;
        case Dispatch::Mode::analyze:
            return fileModes::analyze(dispatch.arguments, stdout, stderr, switches.preciseAnalysis);
        case Dispatch::Mode::timeline:
            return fileModes::timeline(dispatch.arguments, stdout, stderr);
        case Dispatch::Mode::chroma:
            return fileModes::chroma(dispatch.arguments, stdout, stderr);
        case Dispatch::Mode::live:
            return liveMode::run(argc, argv, dispatch.arguments);
        case Dispatch::Mode::panel:
            break;
    }
    return runDesktopApp(argc, argv, [](std::string_view line) { diagnosticLog::write(line); },
                         {.insistOnWayland = switches.nativeWayland});
}
