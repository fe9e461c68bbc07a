#include "app/Dispatch.h"

namespace velquin {

Dispatch Dispatch::from(const std::vector<std::string>& arguments) {
    const size_t count = arguments.size();
    const auto rest = [&] { return std::vector<std::string>(arguments.begin() + 2, arguments.end()); };
    if (count >= 2 && (arguments[1] == "--help" || arguments[1] == "-h")) return {Mode::help, {}};
    if (count < 3) return {Mode::panel, {}};
    if (arguments[1] == "--analyze") return {Mode::analyze, rest()};
    if (arguments[1] == "--timeline") return {Mode::timeline, rest()};
    if (count >= 4 && arguments[1] == "--chroma") return {Mode::chroma, rest()};
    if (arguments[1] == "--live") return {Mode::live, rest()};
    return {Mode::panel, {}};
}

const char* const Dispatch::usage =
    "Usage:\n"
    "  velquin                               the desktop bar: live tempo and key of what the computer plays\n"
    "  velquin --analyze FILE [RANGE]        tempo and key of an audio file; RANGE is auto (the default),\n"
    "                                        verySlow, slow, standard or fast\n"
    "  velquin --timeline FILE               the live readings second by second, then the final result\n"
    "  velquin --chroma FILE OUT.csv         the key analyzer's frames as CSV\n"
    "  velquin --live system|mic [SECONDS [RECORDING]]\n"
    "                                        listen for SECONDS (15 by default), print every reading and\n"
    "                                        record what was heard to RECORDING (.wav, .caf or .flac);\n"
    "                                        Ctrl-C ends early and keeps the recording\n"
    "  velquin --help, -h                    this text\n"
    "Results go to standard output; a failure is one \"Error: \" line on standard error and exit status 1.\n";

}  // namespace velquin
