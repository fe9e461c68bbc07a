#include "analysis/BlockLevel.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace velquin {

namespace {

// Whether a positive finite double, or zero, is a whole multiple of 2^exponent.
bool isMultipleOf(double value, int exponent) {
    const auto bits = std::bit_cast<uint64_t>(value);
    const auto biased = static_cast<int>(bits >> 52);
    if (biased == 0) return value == 0;            // the sums here are never subnormal
    const int below = exponent - (biased - 1075);  // mantissa bits that must be zero
    if (below <= 0) return true;
    if (below > 52) return false;
    return (bits & ((uint64_t{1} << below) - 1)) == 0;
}

}  // namespace

// The plain loop is one long chain of dependent additions, each waiting for the last. Here sixteen
// squares are summed as a tree and added at once, which gives the same number whenever the plain loop
// would not have rounded on the way. Let the tree's total lie in [2^e, 2^(e+1)) and u = 2^(e-52). If
// the sum so far and every square are whole multiples of u, so is every partial sum in any order;
// those below 2^(e+1) = 2^53·u are exact, and since rounding is monotonic and never crosses a power of
// two, the tree reaches 2^(e+1) exactly when the true total does. It did not, so nothing was rounded
// and both orders give the true total. A square is a multiple of u when it is zero or at least
// 2^(e-29), its last place being 23 binary places below its leading bit. When the check fails, which
// takes a non-zero square some 2^29 times below the total, the sixteen are added one at a time.
double sumOfSquares(std::span<const float> samples) {
    using Floats = float __attribute__((vector_size(16)));
    using Doubles = double __attribute__((vector_size(32)));
    constexpr size_t block = 16;
    const float* x = samples.data();
    const size_t n = samples.size();
    double sum = 0;
    size_t i = 0;
    for (; i + block <= n; i += block) {
        Floats q[4];
        std::memcpy(q, x + i, sizeof q);
        Doubles pairs = {0, 0, 0, 0};
        for (Floats& v : q) {
            v *= v;
            pairs += __builtin_convertvector(v, Doubles);
        }
        const double total = sum + ((pairs[0] + pairs[2]) + (pairs[1] + pairs[3]));

        const int e = static_cast<int>(std::bit_cast<uint64_t>(total) >> 52) - 1023;
        bool exact = e < 128 + 29 && isMultipleOf(sum, e - 52);  // also false for infinity and NaN
        if (exact && e > -97) {                                  // below that every float is a multiple of u
            const float least = std::bit_cast<float>(static_cast<uint32_t>(e - 29 + 127) << 23);
            const Floats floor = {least, least, least, least};
            auto fits = ((q[0] == 0.0f) | (q[0] >= floor)) & ((q[1] == 0.0f) | (q[1] >= floor)) &
                        ((q[2] == 0.0f) | (q[2] >= floor)) & ((q[3] == 0.0f) | (q[3] >= floor));
            exact = (fits[0] & fits[1] & fits[2] & fits[3]) != 0;
        }
        if (exact) {
            sum = total;
        } else {
            for (size_t j = i; j < i + block; ++j) sum += static_cast<double>(x[j] * x[j]);
        }
    }
    for (; i < n; ++i) sum += static_cast<double>(x[i] * x[i]);
    return sum;
}

float blockLevel(std::span<const float> samples) {
    return std::sqrt(static_cast<float>(sumOfSquares(samples) / static_cast<double>(samples.size())));
}

}  // namespace velquin
