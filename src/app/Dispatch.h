#pragma once
// What the process is, decided once from its arguments by a fixed order of tests.

#include <optional>
#include <string>
#include <vector>

namespace velquin {

struct Dispatch {
    // `panel`: no terminal mode, the reading shows in the desktop's panel (and the bar).
    enum class Mode { panel, help, analyze, timeline, chroma, live };

    Mode mode = Mode::panel;
    // The mode's own arguments, after the switch (file paths, range word, source word, …).
    std::vector<std::string> arguments;

    // `arguments[0]` is the program path. A switch with too few arguments falls through.
    static Dispatch from(const std::vector<std::string>& arguments);

    // The usage of every mode, for --help and -h.
    static const char* const usage;
};

}  // namespace velquin
