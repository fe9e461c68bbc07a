#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace velquin {

enum class TempoRange { Auto, verySlow, slow, standard, fast };

struct BPMBounds {
    double lower;
    double upper;
    bool contains(double bpm) const { return bpm >= lower && bpm <= upper; }
    friend bool operator==(const BPMBounds&, const BPMBounds&) = default;
};

BPMBounds bounds(TempoRange range);
std::string_view textName(TempoRange range);                              // "auto", "verySlow", …
std::optional<TempoRange> tempoRangeFromTextName(std::string_view name);  // case-sensitive
const std::array<TempoRange, 5>& allTempoRanges();

}  // namespace velquin
