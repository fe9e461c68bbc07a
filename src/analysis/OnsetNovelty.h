#pragma once
// Onset novelty for the precise tempo analysis: the spectrum of each 10 ms hop pooled into
// logarithmically spaced bands, compressed by log(1 + γ·x), and the rises of every band summed
// (log-filtered spectral flux), separately for three registers: low (kick, bass), mid (snare, chords,
// melody) and high (cymbals, hi-hats). Band pooling makes a note's onset count once whatever its pitch, and
// the log makes quiet hi-hats and loud kicks rise by comparable amounts; both matter on drum-only and heavily
// mixed material where plain spectral flux follows the loudest instrument.
//
// Not thread-safe. `append` allocates nothing once `reserve`d (the kept curve is bounded).

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "analysis/FFTMagnitude.h"

namespace velquin {

struct OnsetNoveltyParameters {
    // Band edges: below `lowHz` is rumble; above `highHz` lossy codecs leave little but noise.
    double lowHz = 30.0;
    double highHz = 16000.0;
    // Semitone-wide bands: fine enough that a bass line's notes land in different bands.
    double bandsPerOctave = 12.0;
    // γ of log(1 + γ·x) for band magnitudes (a full-scale sine has magnitude 1 in its band).
    double compression = 10000.0;
    // The curve kept for the decision; older values are dropped (ten minutes: memory stays bounded on
    // a long mix, and a tempo that held that long is the file's tempo).
    double keptSeconds = 600.0;
    // Register edges (Hz): a band belongs to the register its lowest bin falls in.
    double lowMidHz = 200.0;
    double midHighHz = 2000.0;
};

class OnsetNovelty {
  public:
    using Parameters = OnsetNoveltyParameters;

    explicit OnsetNovelty(double sampleRate, Parameters parameters = {});
    OnsetNovelty(const OnsetNovelty&) = delete;
    OnsetNovelty& operator=(const OnsetNovelty&) = delete;

    enum Register : size_t { low, mid, high };
    static constexpr size_t registers = 3;

    void append(std::span<const float> samples);

    // One value per hop and register, oldest first; at most `keptSeconds` of them.
    std::span<const float> curve(Register r) const;
    double framesPerSecond() const { return sampleRate_ / static_cast<double>(hop_); }
    // The frames produced so far, including those no longer kept.
    int64_t framesSeen() const { return framesSeen_; }
    // Mean square of every sample fed (the silence test).
    double meanSquare() const { return samplesSeen_ > 0 ? energy_ / static_cast<double>(samplesSeen_) : 0; }

  private:
    void frame(std::span<const float> samples);

    Parameters p_;
    double sampleRate_;
    size_t hop_;
    size_t fftSize_;
    FFTMagnitude fft_;
    std::vector<uint16_t> bandOf_;     // per bin, or noBand
    std::vector<uint8_t> registerOf_;  // per band
    size_t firstBin_ = 0;
    size_t lastBin_ = 0;  // exclusive
    std::vector<float> mag_;
    std::vector<float> bands_;
    std::vector<float> previous_;
    std::vector<float> pending_;
    std::vector<float> curves_[registers];
    size_t curveStart_ = 0;
    size_t keptFrames_ = 0;
    bool havePrevious_ = false;
    int64_t framesSeen_ = 0;
    int64_t samplesSeen_ = 0;
    double energy_ = 0;
};

}  // namespace velquin
