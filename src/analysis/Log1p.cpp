#include "analysis/Log1p.h"

#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>

namespace velquin {

namespace {

// ln 2 split so that k · ln2Hi is exact for the k that occur, and the coefficients of the polynomial,
// as float bit patterns.
constexpr float ln2Hi = std::bit_cast<float>(0x3f317180u);
constexpr float ln2Lo = std::bit_cast<float>(0x3717f7d1u);
constexpr float lp1 = std::bit_cast<float>(0x3f2aaaabu);
constexpr float lp2 = std::bit_cast<float>(0x3ecccccdu);
constexpr float lp3 = std::bit_cast<float>(0x3e924925u);
constexpr float lp4 = std::bit_cast<float>(0x3e638e29u);
constexpr float lp5 = std::bit_cast<float>(0x3e3a3325u);
constexpr float lp6 = std::bit_cast<float>(0x3e1cd04fu);
constexpr float lp7 = std::bit_cast<float>(0x3e178897u);

constexpr int32_t belowTwoToMinus24 = 0x33800000;     // log1p(x) rounds to x
constexpr int32_t belowSqrtTwoMinusOne = 0x3ed413d7;  // no reduction needed
constexpr int32_t belowTwoTo53 = 0x5a000000;          // 1 + x still carries a correction
constexpr int32_t sqrtTwoMantissa = 0x3504f7;         // mantissas from here on are halved into [√2/2, 1)

}  // namespace

float log1p(float x) {
    const auto hx = std::bit_cast<int32_t>(x);
    const int32_t ax = hx & 0x7fffffff;
    if (hx < 0 && ax >= 0x3f800000)  // x ≤ -1, or a negative NaN
        return x == -1.0f ? -std::numeric_limits<float>::infinity() : std::numeric_limits<float>::quiet_NaN();
    if (ax >= 0x7f800000) return x + x;  // +∞ or NaN
    if (ax < belowTwoToMinus24) return x;

    int32_t k = 0;
    int32_t hu = 1;
    float f = x;
    float c = 0;
    // From -0.29 to √2 - 1 the polynomial takes x as it is.
    if (hx >= belowSqrtTwoMinusOne || (hx < 0 && hx > static_cast<int32_t>(0xbe95f61d))) {
        // log1p(x) = k·ln2 + log(u) with 1 + x = 2^k·u, plus c, the part of x that 1 + x lost to rounding.
        float u = x;
        if (hx < belowTwoTo53) {
            u = 1.0f + x;
            hu = std::bit_cast<int32_t>(u);
            k = (hu >> 23) - 127;
            c = k > 0 ? 1.0f - (u - x) : x - (u - 1.0f);
            c /= u;
        } else {
            hu = hx;
            k = (hu >> 23) - 127;
        }
        hu &= 0x007fffff;
        if (hu < sqrtTwoMantissa) {
            u = std::bit_cast<float>(hu | 0x3f800000);
        } else {
            k += 1;
            u = std::bit_cast<float>(hu | 0x3f000000);
            hu = (0x00800000 - hu) >> 2;
        }
        f = u - 1.0f;
    }
    const float kf = static_cast<float>(k);
    const float hfsq = 0.5f * f * f;
    if (hu == 0) {  // |f| < 2^-20
        if (f == 0.0f) return k == 0 ? 0.0f : kf * ln2Hi + (c + kf * ln2Lo);
        const float r = hfsq * (1.0f - 0.66666666666666666f * f);
        if (k == 0) return f - r;
        return kf * ln2Hi - ((r - (kf * ln2Lo + c)) - f);
    }
    const float s = f / (2.0f + f);
    const float z = s * s;
    const float r = z * (lp1 + z * (lp2 + z * (lp3 + z * (lp4 + z * (lp5 + z * (lp6 + z * lp7))))));
    if (k == 0) return f - (hfsq - s * (hfsq + r));
    return kf * ln2Hi - ((hfsq - (s * (hfsq + r) + (kf * ln2Lo + c))) - f);
}

namespace {

// The common cases, 0 ≤ x < 2^53, a vector at a time: both branches are computed and each lane picks
// its own. Lanes outside them (negative, huge, NaN) or with a reduced f of exactly 0 are flagged in
// `unusual`, for the scalar version to redo.
template <typename Floats, typename Ints>
[[gnu::always_inline]] inline void log1pLanes(Floats& values, Ints& unusual) {
    const Floats x = values;
    const Ints none{};
    const auto hx = __builtin_bit_cast(Ints, x);
    const Floats u1 = 1.0f + x;
    const auto hu1 = __builtin_bit_cast(Ints, u1);
    const Ints k1 = (hu1 >> 23) - 127;
    const Floats c1 = (k1 > 0 ? 1.0f - (u1 - x) : x - (u1 - 1.0f)) / u1;
    const Ints m = hu1 & 0x007fffff;
    const Ints halve = m >= sqrtTwoMantissa;
    const auto uReduced = __builtin_bit_cast(Floats, m | (halve ? none + 0x3f000000 : none + 0x3f800000));
    const Ints huReduced = halve ? (0x00800000 - m) >> 2 : m;

    const Ints reduce = hx >= belowSqrtTwoMinusOne;
    const Ints k = reduce ? k1 - halve : none;  // true is -1 in a vector comparison
    const Floats f = reduce ? uReduced - 1.0f : x;
    const Floats c = reduce ? c1 : Floats{};
    unusual |= (hx < 0) | (hx >= belowTwoTo53) | (reduce & (huReduced == 0));

    const Floats kf = __builtin_convertvector(k, Floats);
    const Floats hfsq = 0.5f * f * f;
    const Floats s = f / (2.0f + f);
    const Floats z = s * s;
    const Floats r = z * (lp1 + z * (lp2 + z * (lp3 + z * (lp4 + z * (lp5 + z * (lp6 + z * lp7))))));
    const Floats plain = f - (hfsq - s * (hfsq + r));
    const Floats reduced = kf * ln2Hi - ((hfsq - (s * (hfsq + r) + (kf * ln2Lo + c))) - f);
    const Floats result = k == 0 ? plain : reduced;  // k may come back to 0 from a reduction too
    values = hx < belowTwoToMinus24 ? x : result;
}

template <size_t Lanes>
struct Vectors;
template <>
struct Vectors<4> {
    using Floats = float __attribute__((vector_size(16)));
    using Ints = int32_t __attribute__((vector_size(16)));
};
template <>
struct Vectors<8> {
    using Floats = float __attribute__((vector_size(32)));
    using Ints = int32_t __attribute__((vector_size(32)));
};

// Two vectors per step, so that one's chain of dependent operations fills the other's waits.
template <size_t Lanes>
[[gnu::always_inline]] inline void log1pBlocks(float* p, size_t n) {
    using Floats = typename Vectors<Lanes>::Floats;
    using Ints = typename Vectors<Lanes>::Ints;
    constexpr size_t step = 2 * Lanes;
    size_t i = 0;
    for (; i + step <= n; i += step) {
        Floats a, b;
        std::memcpy(&a, p + i, sizeof a);
        std::memcpy(&b, p + i + Lanes, sizeof b);
        Ints unusual{};
        log1pLanes(a, unusual);
        log1pLanes(b, unusual);
        int32_t any = 0;
        for (size_t lane = 0; lane < Lanes; ++lane) any |= unusual[lane];
        if (any != 0) {
            for (size_t j = i; j < i + step; ++j) p[j] = log1p(p[j]);
            continue;
        }
        std::memcpy(p + i, &a, sizeof a);
        std::memcpy(p + i + Lanes, &b, sizeof b);
    }
    for (; i < n; ++i) p[i] = log1p(p[i]);
}

#if defined(__x86_64__)
// Every operation is the same IEEE one in either width, so which one a processor runs changes no bit.
[[gnu::target("avx2")]] void log1pBlocksWide(float* p, size_t n) {
    log1pBlocks<8>(p, n);
}
#endif

}  // namespace

void log1pInPlace(std::span<float> values) {
#if defined(__x86_64__)
    static const bool wide = __builtin_cpu_supports("avx2");
    if (wide) {
        log1pBlocksWide(values.data(), values.size());
        return;
    }
#endif
    log1pInPlaceBaseline(values);
}

void log1pInPlaceBaseline(std::span<float> values) {
    log1pBlocks<4>(values.data(), values.size());
}

}  // namespace velquin
