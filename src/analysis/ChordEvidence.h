#pragma once
// Chord-function evidence for the key: the mid-range chroma is cut into windows, each window's best
// major or minor triad becomes (or extends) a chord segment, and each key scores the segments by the
// role their chord plays in it (tonic, dominant, subdominant, relative, …), their confidence and length.

#include <array>
#include <cstddef>
#include <span>
#include <vector>

namespace velquin {

struct KeyParameters;

class ChordEvidence {
  public:
    using Chroma = std::array<double, 12>;

    // Room for `segments` chord segments before the scratch grows.
    explicit ChordEvidence(size_t segments = 0) { segments_.reserve(segments); }

    // Evidence for the 24 keys (major by tonic, then minor by tonic) from mid-range chroma frames at
    // `frameRate`; all zero when chords are off or too few frames were heard. Allocates nothing once
    // the scratch has the room.
    std::array<double, 24> scores(std::span<const Chroma> mid, double frameRate, const KeyParameters& p);

  private:
    struct Segment {
        size_t root = 0;
        bool isMinor = false;
        double confidence = 0;
        size_t frames = 0;
    };

    void segment(std::span<const Chroma> mid, size_t window, double minConfidence);
    double strength(double frames, double coverageFrames) const;
    void report(double strength, const KeyParameters& p) const;

    std::vector<Segment> segments_;
};

}  // namespace velquin
