#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdlib>
#include <string_view>

#include "analysis/Format.h"
#include "app/Environment.h"
#include "support/TestSupport.h"

namespace environment = velquin::environment;

using velquin::test::ScopedEnv;

TEST(Environment, NumbersAreTheWholeTextInTheCLocale) {
    for (const auto& [text, value] :
         {std::pair{"12", 12.0}, {"-0.25", -0.25}, {"0x10", 16.0}, {"1e3", 1000.0}})
        EXPECT_EQ(environment::parseNumber(text), value) << text;
    for (const char* text : {"", " 12", "\t1", "12 ", "12abc", "abc", "1,5"})
        EXPECT_FALSE(environment::parseNumber(text)) << '"' << text << '"';
    EXPECT_TRUE(std::isinf(*environment::parseNumber("inf")));
    EXPECT_TRUE(std::isnan(*environment::parseNumber("nan")));
    EXPECT_FALSE(environment::parseNumber(nullptr));

    // A decimal-comma locale must change neither how "0.5" reads nor how numbers print.
    if (std::setlocale(LC_NUMERIC, "de_DE.UTF-8") == nullptr) GTEST_SKIP() << "no de_DE locale";
    EXPECT_EQ(environment::parseNumber("0.5"), 0.5);
    EXPECT_EQ(velquin::format("%.2f", 0.5), "0.50");
    std::setlocale(LC_NUMERIC, "C");
}

TEST(Environment, OverridesFillTheParametersUnderEitherPrefix) {
    const auto defaults = environment::read();
    EXPECT_FALSE(defaults.debug);
    EXPECT_FALSE(defaults.preciseAnalysis);
    for (const char* value : {"precise", "Precise", "specified", ""}) {
        ScopedEnv analysis("VELQUIN_ANALYSIS", value);
        EXPECT_EQ(environment::read().preciseAnalysis, std::string_view(value) == "precise") << value;
    }
    EXPECT_FALSE(defaults.parameters.key.onDebug);
    {
        ScopedEnv harm("VELQUIN_EXP_HARM", "1,x,,0.5");
        ScopedEnv oldHarm("TESSARO_EXP_HARM", "2");  // the project's own spelling wins
        ScopedEnv hist("TESSARO_EXP_TEMPOHIST", "12");
        ScopedEnv comp("VELQUIN_EXP_COMP", "1e300");  // not an integer: the default stays
        ScopedEnv profile("TESSARO_PROFILE", "krumhansl");
        ScopedEnv debug("VELQUIN_DEBUG", "");
        const auto switches = environment::read();
        EXPECT_EQ(switches.parameters.key.harmonicWeights, (std::vector<double>{1.0, 0.5}));
        EXPECT_EQ(switches.parameters.tempo.historySeconds, 12);
        EXPECT_EQ(switches.parameters.key.peakCompression, 0);
        EXPECT_EQ(switches.parameters.key.profile, velquin::KeyProfile::Name::krumhansl);
        EXPECT_TRUE(switches.debug && switches.parameters.tempo.onDebug && switches.parameters.key.onDebug);
    }
    for (const char* value : {"abc", "", "Krumhansl"}) {
        ScopedEnv harm("VELQUIN_EXP_HARM", value);
        ScopedEnv profile("VELQUIN_PROFILE", value);
        const auto switches = environment::read();
        EXPECT_EQ(switches.parameters.key.harmonicWeights, defaults.parameters.key.harmonicWeights);
        EXPECT_EQ(switches.parameters.key.profile, velquin::KeyProfile::Name::blend);
    }
}

TEST(Environment, NativeWaylandIsAskedForByAValueOtherThanZero) {
    EXPECT_FALSE(environment::read().nativeWayland);
    for (const auto& [value, expected] : {std::pair{"1", true}, {"yes", true}, {"0", false}, {"", false}}) {
        ScopedEnv wayland("VELQUIN_NATIVE_WAYLAND", value);
        EXPECT_EQ(environment::read().nativeWayland, expected) << '"' << value << '"';
    }
}
