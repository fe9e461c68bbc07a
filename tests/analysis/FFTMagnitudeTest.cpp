#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

#include "analysis/FFTMagnitude.h"

using velquin::FFTMagnitude;

namespace {

std::vector<float> run(FFTMagnitude& fft, const std::vector<float>& frame) {
    std::vector<float> out(static_cast<size_t>(fft.binCount()), -1.0f);
    fft.magnitudes(frame, out);
    return out;
}

}  // namespace

TEST(FFTMagnitude, ScalingOfZerosConstantAndSine) {
    const int n = 1024;
    FFTMagnitude fft(n);

    for (float v : run(fft, std::vector<float>(n, 0.0f))) EXPECT_EQ(v, 0.0f);

    // DC is 2·a·mean(window); bin 1 carries the window's own first harmonic.
    const float a = 0.5f;
    auto dc = run(fft, std::vector<float>(n, a));
    EXPECT_NEAR(dc[0], 2 * a * 0.8165, 1e-5);
    EXPECT_NEAR(dc[1], a * 0.8165, 1e-5);
    for (int k = 2; k < n / 2; ++k) ASSERT_NEAR(dc[static_cast<size_t>(k)], 0.0, 1e-5) << k;

    // A full-scale sine on a bin: 0.8165 at the bin, half of it on each neighbour.
    for (int k0 : {1, 37, n / 2 - 2}) {
        std::vector<float> frame(n);
        for (int i = 0; i < n; ++i)
            frame[static_cast<size_t>(i)] = static_cast<float>(std::sin(2 * std::numbers::pi * k0 * i / n));
        auto out = run(fft, frame);
        std::vector<float> low(static_cast<size_t>(k0) + 1);
        fft.magnitudes(frame, low);
        EXPECT_TRUE(std::equal(low.begin(), low.end(), out.begin())) << k0;
        const auto k = static_cast<size_t>(k0);
        EXPECT_NEAR(out[k], 0.8165, 1e-4) << k0;
        EXPECT_NEAR(out[k + 1], 0.8165 / 2, 1e-4) << k0;
        EXPECT_NEAR(out[k - 1], k0 > 1 ? 0.8165 / 2 : 0.0, 1e-4) << k0;
    }
}
