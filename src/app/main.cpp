#include <cstdio>
#include <string>
#include <vector>

#include "Dispatch.h"
#include "FileModes.h"
#include "LiveMode.h"

int main(int argc, char** argv) {
    using namespace velquin;
    const std::vector<std::string> arguments(argv, argv + argc);
    const Dispatch dispatch = Dispatch::from(arguments);
    switch (dispatch.mode) {
        case Dispatch::Mode::analyze: return FileModes::analyze(dispatch.arguments, stdout, stderr);
        case Dispatch::Mode::timeline: return FileModes::timeline(dispatch.arguments, stdout, stderr);
        case Dispatch::Mode::chroma: return FileModes::chroma(dispatch.arguments, stdout, stderr);
        case Dispatch::Mode::live: return LiveMode::run(argc, argv, dispatch.arguments);
        case Dispatch::Mode::menuBar: break;
    }
    std::fputs("usage: velquin [--analyze FILE [RANGE] | --timeline FILE | --chroma FILE OUT.csv]\n", stderr);
    return 0;
}
