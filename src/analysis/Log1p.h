#pragma once
// log(1 + x) in single precision, computed here rather than by the C library: the same bits on every
// machine and C library version, and several values at a time. Argument reduction to [√2/2, √2], then
// s = f / (2 + f) and a polynomial in s², all in float in a fixed order of operations;
// the result is within two units in the last place, and bit for bit that of GNU libm 2.36, with which the
// engine's published results were first computed.

#include <span>

namespace velquin {

float log1p(float x);

// Every value replaced by its log1p, as the scalar version would give it; eight at a time where the
// processor has AVX2, else four.
void log1pInPlace(std::span<float> values);
// The four-at-a-time version whatever the processor, for tests.
void log1pInPlaceBaseline(std::span<float> values);

}  // namespace velquin
