#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdlib>

#include "analysis/Format.h"

using velquin::format;

TEST(Format, TextConversionPadsByCharacters) {
    EXPECT_EQ(format("%-4s|", "E♭m"), "E♭m |");
    EXPECT_EQ(format("%4s|", "F♯"), "  F♯|");
    EXPECT_EQ(format("%-4s|", "G♯m/B"), "G♯m/B|");  // never truncates
    EXPECT_EQ(format("%s=%.2f ", "C#", 0.456), "C#=0.46 ");
    EXPECT_EQ(format("%3.0f%%", 99.5), "100%");
    EXPECT_EQ(format("%+5.1f", 0.04), " +0.0");
    EXPECT_EQ(format("%+5.1f", -7.94), " -7.9");
    EXPECT_EQ(format("%3d|%6.1f", 42, 120.04), " 42| 120.0");
    EXPECT_EQ(format("%7.4f", -std::numeric_limits<double>::infinity()), "   -inf");
    EXPECT_EQ(format("100%% %s", ""), "100% ");
}
