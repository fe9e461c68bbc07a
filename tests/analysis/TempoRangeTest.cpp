#include <gtest/gtest.h>

#include "analysis/TempoRange.h"

namespace velquin {

// The raw values are what the settings store: every range must come back from its own, and nothing
// else may pass for one.
TEST(TempoRange, EachRangeComesBackFromItsRawValueAndSpansAnOctave) {
    for (const TempoRange range : allTempoRanges()) {
        EXPECT_EQ(tempoRangeFromTextName(textName(range)), range);
        // An octave at least, or a tempo and its double could both fall outside.
        EXPECT_GE(bounds(range).upper, 2 * bounds(range).lower);
    }
    EXPECT_EQ(tempoRangeFromTextName("Slow"), std::nullopt);  // case-sensitive
    EXPECT_EQ(tempoRangeFromTextName(""), std::nullopt);
}

}  // namespace velquin
