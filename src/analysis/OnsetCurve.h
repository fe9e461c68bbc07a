#pragma once
// The stages the tempo analyzer's periodicity search puts its onset curve through, in order: detrend,
// blur, standardise, autocorrelate. Each writes into a buffer the caller keeps, so that repeated
// analyses allocate nothing once the buffers have grown.

#include <cstddef>
#include <span>
#include <vector>

namespace velquin {

// The rises of the onset curve over its centred moving average of 2·half + 1 frames (shortened at
// the ends).
void detrend(std::span<const float> x, size_t half, std::vector<double>& out);

// Gaussian blur over ±4 frames; taps past either end are skipped, not renormalised.
void blur(std::span<const double> d, double widthFrames, std::vector<double>& out);

// Zero mean, unit variance, in place; false when the curve is flat.
bool standardise(std::span<double> e);

// Unbiased autocorrelation for lags 1 … maxLag into acf (zero elsewhere, `size` entries).
void autocorrelate(std::span<const double> e, size_t maxLag, size_t size, std::vector<double>& acf);

}  // namespace velquin
