#pragma once

namespace velquin {

// One tempo reading. bpm ≤ 0 means no tempo; all zeros is the nothing-yet value.
struct TempoEstimate {
    double bpm = 0;
    double confidence = 0;  // 0…1
    double level = 0;       // the tempo analyzer's smoothed signal level
};

}  // namespace velquin
