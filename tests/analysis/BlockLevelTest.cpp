#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "analysis/BlockLevel.h"

namespace {

double plainSum(const std::vector<float>& x) {
    double sum = 0;
    for (float v : x) sum += static_cast<double>(v * v);
    return sum;
}

}  // namespace

// The blocked sum must be the plain loop's, bit for bit, whatever the samples: the analyzers' levels and
// through them every published result depend on it. The cases lean on what makes the shortcut fail:
// squares far below the running sum, exact zeros, subnormals, overflow, NaN, and sums crossing a power
// of two.
TEST(BlockLevel, SumOfSquaresIsThePlainLoopBitForBit) {
    std::mt19937_64 random(11);
    std::normal_distribution<float> normal(0.0f, 1.0f);
    const float specials[] = {0.0f,
                              -0.0f,
                              1e-30f,
                              std::numeric_limits<float>::denorm_min(),
                              1e-20f,
                              3e19f,
                              std::numeric_limits<float>::infinity(),
                              std::numeric_limits<float>::quiet_NaN()};
    for (int trial = 0; trial < 4000; ++trial) {
        const size_t n = trial % 10 == 0 ? 16384 : random() % 200;
        const float scale = std::ldexp(1.0f, static_cast<int>(random() % 80) - 60);
        const int flavour = trial % 5;  // 0: plain noise; 1: with zeros and tiny values; 2…4: also specials
        std::vector<float> x(n);
        for (float& v : x) {
            v = normal(random) * scale;
            const auto r = random() % 64;
            if (flavour >= 1 && r < 3) v = r == 0 ? 0.0f : v * 1e-6f;
            if (flavour >= 2 && r == 3) v = specials[random() % (flavour == 2 ? 4 : 8)];
        }
        const double expected = plainSum(x);
        const double actual = velquin::sumOfSquares(x);
        if (std::isnan(expected)) {
            ASSERT_TRUE(std::isnan(actual)) << trial;
        } else {
            ASSERT_EQ(std::bit_cast<uint64_t>(actual), std::bit_cast<uint64_t>(expected))
                << "trial " << trial << ": " << actual << " vs " << expected;
        }
    }

    // A ramp through many octaves, so the running sum keeps crossing powers of two.
    std::vector<float> ramp(5000);
    for (size_t i = 0; i < ramp.size(); ++i)
        ramp[i] = std::ldexp(1.0f + static_cast<float>(i % 7) / 8, static_cast<int>(i / 100) - 25);
    EXPECT_EQ(velquin::sumOfSquares(ramp), plainSum(ramp));
    EXPECT_EQ(velquin::sumOfSquares({}), 0.0);
}
