#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdlib>

#include "Exp.h"
#include "Format.h"

using velquin::Exp;
using velquin::format;

namespace {

class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name) { ::setenv(name, value, 1); }
    ~ScopedEnv() { ::unsetenv(name_); }

private:
    const char* name_;
};

}  // namespace

TEST(Exp, DoubleAcceptsOnlyAWholeNumber) {
    EXPECT_EQ(Exp::doubleValue("VQTEST", 7.5), 7.5);  // absent
    struct Case {
        const char* text;
        double expected;
    };
    for (const Case& c : {Case{"12", 12}, {"-0.25", -0.25}, {"0x10", 16}, {"1e3", 1000}, {"", 7.5}, {" 12", 7.5},
                          {"\t1", 7.5}, {"12 ", 7.5}, {"12abc", 7.5}, {"abc", 7.5}, {"1,5", 7.5}}) {
        ScopedEnv env("TESSARO_EXP_VQTEST", c.text);
        EXPECT_EQ(Exp::doubleValue("VQTEST", 7.5), c.expected) << '"' << c.text << '"';
    }
    {
        ScopedEnv env("TESSARO_EXP_VQTEST", "inf");
        EXPECT_TRUE(std::isinf(Exp::doubleValue("VQTEST", 1)));
    }
    {
        ScopedEnv env("TESSARO_EXP_VQTEST", "nan");
        EXPECT_TRUE(std::isnan(Exp::doubleValue("VQTEST", 1)));
    }
}

TEST(Exp, ParsingIgnoresTheProcessLocale) {
    // A decimal-comma locale must not change how "0.5" reads; skip where none is installed.
    if (std::setlocale(LC_NUMERIC, "de_DE.UTF-8") == nullptr) GTEST_SKIP() << "no de_DE locale";
    ScopedEnv env("TESSARO_EXP_VQTEST", "0.5");
    EXPECT_EQ(Exp::doubleValue("VQTEST", 1), 0.5);
    EXPECT_EQ(format("%.2f", 0.5), "0.50");
    std::setlocale(LC_NUMERIC, "C");
}

TEST(Exp, ListKeepsThePiecesThatParse) {
    const std::vector<double> fallback{1.0, 0.55, 0.35, 0.22};
    EXPECT_EQ(Exp::list("VQTEST", fallback), fallback);
    struct Case {
        const char* text;
        std::vector<double> expected;
    };
    for (const Case& c : {Case{"1,x,0.5", {1.0, 0.5}}, {"1, 0.5", {1.0}}, {"abc", fallback}, {"", fallback},
                          {",,2,,", {2.0}}, {"0x1p-1", {0.5}}}) {
        ScopedEnv env("TESSARO_EXP_VQTEST", c.text);
        EXPECT_EQ(Exp::list("VQTEST", fallback), c.expected) << '"' << c.text << '"';
    }
}

TEST(Format, TextConversionPadsByCharacters) {
    EXPECT_EQ(format("%-4@|", "E♭m"), "E♭m |");
    EXPECT_EQ(format("%4@|", "F♯"), "  F♯|");
    EXPECT_EQ(format("%-4@|", "G♯m/B"), "G♯m/B|");  // never truncates
    EXPECT_EQ(format("%@=%.2f ", "C#", 0.456), "C#=0.46 ");
    EXPECT_EQ(format("%3.0f%%", 99.5), "100%");
    EXPECT_EQ(format("%+5.1f", 0.04), " +0.0");
    EXPECT_EQ(format("%+5.1f", -7.94), " -7.9");
    EXPECT_EQ(format("%3d|%6.1f", 42, 120.04), " 42| 120.0");
    EXPECT_EQ(format("%7.4f", -std::numeric_limits<double>::infinity()), "   -inf");
    EXPECT_EQ(format("100%% %@", ""), "100% ");
}
