#pragma once
// Root mean square of one block, as both analyzers measure their input level.

#include <cmath>
#include <span>

namespace velquin {

// Single-precision level; the squares are summed in double so that long offline chunks do not
// lose their tail.
inline float blockLevel(std::span<const float> samples) {
    double sum = 0;
    for (float s : samples) sum += static_cast<double>(s * s);
    return std::sqrt(static_cast<float>(sum / static_cast<double>(samples.size())));
}

}  // namespace velquin
