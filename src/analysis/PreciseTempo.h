#pragma once
// The precise whole-file tempo: log-filtered spectral-flux novelty (OnsetNovelty), then two periodicity
// views of it over 8-second windows, averaged over the file:
//   - the autocorrelation tempogram, read through a comb of the beat lag and its multiples, which is
//     also high at half and a third of the tempo (every multiple of the beat period repeats);
//   - the Fourier tempogram, which is also high at twice and three times the tempo (a pulse train's
//     harmonics).
// Their product is high only where both agree, at the beat itself, which is what removes most octave and
// ⅔ errors (the product form follows the usual template-based tempo methods). A broad log-normal prior
// breaks what remains. The confidence is the product's margin over the best rival tempo, mapped to a
// probability by a logistic curve fitted on labelled music.
//
// Not thread-safe. Memory is bounded by OnsetNovelty's kept curve.

#include <span>
#include <vector>

#include "OnsetNovelty.h"
#include "TempoEstimate.h"
#include "TempoRange.h"

namespace velquin {

struct PreciseTempoParameters {
    OnsetNoveltyParameters novelty;
    // The novelty's local mean over this span is subtracted: what remains are onsets standing out of
    // their surroundings, not the loudness of a passage.
    double detrendSeconds = 1.0;
    // Tempogram windows: long enough to hold four beats at 30 BPM, short enough that a slowly drifting
    // human tempo stays sharp within one.
    double windowSeconds = 8.0;
    double windowHopSeconds = 1.0;
    // Weights of the beat lag and its 2nd–4th multiples in the autocorrelation comb.
    std::vector<double> combWeights{1.0, 0.5, 0.34, 0.25};
    // Exponent of the Fourier factor in the product (0: autocorrelation alone).
    double fourierExponent = 0.25;
    // Log-normal tempo prior: centre (BPM) and width (octaves); broad, so it only settles near ties.
    double priorCentreBpm = 120.0;
    double priorWidthOctaves = 1.0;
    // Tempo grid of the search: this many steps per octave (about 0.3 % apart).
    double gridStepsPerOctave = 240.0;
    // Confidence = 1 / (1 + exp(−(a + b·margin))), margin the log-score lead over the best rival
    // outside ±4 % of the winner (fitted on the labelled set).
    double confidenceOffset = -1.0;
    double confidenceSlope = 4.0;
    // Below this RMS the file is silence: no tempo.
    double silenceFloor = 0.002;
};

class PreciseTempoAnalyzer {
  public:
    using Parameters = PreciseTempoParameters;

    explicit PreciseTempoAnalyzer(double sampleRate, Parameters parameters = {});

    void append(std::span<const float> samples) { novelty_.append(samples); }
    // The decision over the kept curve, within `bounds`; changes nothing.
    TempoEstimate estimate(BPMBounds bounds) const;

    // For tests: the decision on a novelty curve given directly (100 values per second).
    static TempoEstimate decide(std::span<const float> novelty, double framesPerSecond, BPMBounds bounds,
                                const Parameters& parameters);

  private:
    Parameters p_;
    OnsetNovelty novelty_;
};

}  // namespace velquin
