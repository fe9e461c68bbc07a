#pragma once
// Root mean square of one block, as both analyzers measure their input level.

#include <span>

namespace velquin {

// The squares, each rounded to float, summed in double one after another in sample order: the result
// is bit for bit that of the plain loop, only faster (see the definition).
double sumOfSquares(std::span<const float> samples);

// Single-precision level; the squares are summed in double so that long offline chunks do not
// lose their tail.
float blockLevel(std::span<const float> samples);

}  // namespace velquin
