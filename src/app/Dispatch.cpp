#include "Dispatch.h"

namespace velquin {

Dispatch Dispatch::from(const std::vector<std::string>& arguments) {
    const size_t count = arguments.size();
    const auto rest = [&] { return std::vector<std::string>(arguments.begin() + 2, arguments.end()); };
    if (count < 3) return {Mode::menuBar, {}};
    if (arguments[1] == "--analyze") return {Mode::analyze, rest()};
    if (arguments[1] == "--timeline") return {Mode::timeline, rest()};
    if (count >= 4 && arguments[1] == "--chroma") return {Mode::chroma, rest()};
    if (arguments[1] == "--live") return {Mode::live, rest()};
    return {Mode::menuBar, {}};
}

}  // namespace velquin
