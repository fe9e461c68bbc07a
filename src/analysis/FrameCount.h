#pragma once

#include <cstddef>

namespace velquin {

// A count of frames or samples from a product of seconds and rates that may be negative, huge or not a
// number: truncated, clamped to [0, limit].
inline size_t truncatedCount(double value, size_t limit) {
    if (!(value > 0)) return 0;
    if (value >= static_cast<double>(limit)) return limit;
    return static_cast<size_t>(value);
}

}  // namespace velquin
