#include "analysis/TempoRange.h"

namespace velquin {

BPMBounds bounds(TempoRange range) {
    switch (range) {
        case TempoRange::verySlow:
            return {40, 80};
        case TempoRange::slow:
            return {70, 140};
        case TempoRange::standard:
            return {85, 170};
        case TempoRange::fast:
            return {100, 200};
        case TempoRange::Auto:
            break;
    }
    return {60, 200};
}

std::string_view textName(TempoRange range) {
    switch (range) {
        case TempoRange::verySlow:
            return "verySlow";
        case TempoRange::slow:
            return "slow";
        case TempoRange::standard:
            return "standard";
        case TempoRange::fast:
            return "fast";
        case TempoRange::Auto:
            break;
    }
    return "auto";
}

std::optional<TempoRange> tempoRangeFromTextName(std::string_view name) {
    for (TempoRange r : allTempoRanges())
        if (textName(r) == name) return r;
    return std::nullopt;
}

const std::array<TempoRange, 5>& allTempoRanges() {
    static const std::array<TempoRange, 5> all{TempoRange::Auto, TempoRange::verySlow, TempoRange::slow,
                                               TempoRange::standard, TempoRange::fast};
    return all;
}

}  // namespace velquin
