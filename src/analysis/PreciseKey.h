#pragma once
// The precise whole-file key: the key analyzer's per-frame pitch-class vectors (its interpolated
// spectral peaks with subharmonic votes and running tuning) summed over the whole file, with the
// opening and closing seconds counted more (music states its key at its edges), and a bass-note
// histogram beside them; both are correlated with two rotated key-profile pairs whose errors differ:
//   - Albrecht and Shanahan's corpus profiles, strong on the tonic and fifth;
//   - Temperley's, which weigh the scale degrees more evenly and tell relative keys apart better.
// The winning tonic's third then settles the mode (major or minor third, whichever is stronger); when
// the two thirds are level, the key analyzer's own reading of the same tonic names it.
// The confidence is the winner's lead over the runner-up, mapped to a probability by a logistic curve
// fitted on labelled music, and scaled down where even the winner fits the profiles poorly (noise, a
// single tone).

#include <array>
#include <deque>
#include <optional>
#include <span>

#include "analysis/KeyAnalyzer.h"
#include "analysis/MusicalKey.h"

namespace velquin {

struct PreciseKeyParameters {
    // Frames within this many seconds of the start or the end count (1 + edgeWeight) times.
    double edgeSeconds = 8.0;
    double edgeWeight = 1.0;
    // Weight of the bass-note histogram's correlation beside the whole chroma's (per profile pair).
    double bassWeight = 0.2;
    // Weight of Temperley's profiles beside Albrecht and Shanahan's.
    double temperleyWeight = 1.0;
    // The thirds are level when they differ by less than this share of their sum: the mode is then the
    // key analyzer's own, if it found the same tonic. On the labelled files any value from 0.01 to 0.2
    // changes the same single reading (a prelude whose thirds differ by 1 %), so it is not fitted.
    double levelThirds = 0.1;
    // A relative key this close to the winner (in summed correlation) is named as the alternative.
    double relativeMargin = 0.02;
    // Confidence = 1 / (1 + exp(−(a + b·lead))), lead the winner's score minus the runner-up's (fitted
    // by logistic regression on the labelled set's 91 key files).
    double confidenceOffset = 0.37;
    double confidenceSlope = 8.5;
    // No tonal evidence, no confidence: the winner's summed correlation (at most 2·(1 + bassWeight))
    // below `fitFloor` scales the confidence to 0, above `fitFull` leaves it whole, linearly between.
    // A pure tone fits about 1.1 (one pitch class says no key), noise about 0.8; the labelled music
    // fits 1.55 or more.
    double fitFloor = 1.2;
    double fitFull = 1.5;
};

namespace preciseKey {

using Frames = std::span<const KeyAnalyzer::DumpRow>;

// The weighted chroma and bass histogram of a stream of frames, taken as they come: the sums so far, the
// opening seconds' and the frames of the last `edgeSeconds` (all that is kept, so memory is bounded).
class Accumulator {
  public:
    explicit Accumulator(PreciseKeyParameters parameters = {}) : p_(parameters) {}
    void add(Frames frames);
    bool empty() const { return count_ == 0; }
    // Every key's score, in MusicalKey::all order; `other` is the key analyzer's own reading, which
    // names the mode when the winner's thirds are level.
    std::array<double, 24> scores(std::optional<MusicalKey> other = std::nullopt) const;

  private:
    struct Tail {
        double seconds;
        std::array<double, 12> chroma;
        int64_t bass;
    };
    PreciseKeyParameters p_;
    std::array<double, 12> chroma_{};
    std::array<double, 12> bass_{};
    int64_t count_ = 0;
    double first_ = 0;
    std::deque<Tail> tail_;
};

// Every key's score over `frames`, in MusicalKey::all order.
std::array<double, 24> scores(Frames frames, const PreciseKeyParameters& parameters,
                              std::optional<MusicalKey> other = std::nullopt);

// The decision. `base` is the key analyzer's own decision over the same frames: its tuning and chroma
// are kept, and without a key there (silence, too little audio) there is none here either.
KeyEstimate decide(const std::array<double, 24>& scores, const KeyEstimate& base,
                   const PreciseKeyParameters& parameters = {});
KeyEstimate decide(Frames frames, const KeyEstimate& base, const PreciseKeyParameters& parameters = {});

}  // namespace preciseKey
}  // namespace velquin
