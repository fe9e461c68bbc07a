#pragma once
// Tempo of a mono sample stream: a spectral-flux onset curve (one value per 10 ms hop), its
// periodicity by harmonic autocorrelation under a tempo prior, and a lock that holds the shown
// tempo steady.
//
// Not thread-safe: one thread (the analysis queue, or a file analysis) uses an instance.
// `append` and `estimate` allocate nothing once the history has filled.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "analysis/FFTMagnitude.h"
#include "analysis/SlidingWindow.h"
#include "analysis/TempoEstimate.h"
#include "analysis/TempoRange.h"

namespace velquin {

// The tempo analyzer's tunable constants. The defaults are the shipped behaviour; the conformance outputs
// were produced with them.
struct TempoParameters {
    // Onset curve the live estimate reads: long enough for a few bars at 60 BPM, short enough to follow
    // a change of song within seconds.
    double historySeconds = 8.0;
    // A reading at a simple ratio (½, 2, ⅔ …) of the locked tempo is usually the same music heard at
    // another metrical level, so it must persist this long before the lock follows it.
    double ratioHoldSeconds = 10.0;
    // Any other new tempo must persist this long: two bars at 120 BPM.
    double switchSeconds = 2.0;
    // Gaussian blur of the onset curve (frames of 10 ms): merges onsets a frame apart.
    double onsetBlurFrames = 1.3;
    // Width of the log-normal tempo prior around 120 BPM, in octaves.
    double priorWidthOctaves = 0.7;
    // Slight preference for the faster of two equally periodic tempi (per octave).
    double fasterTiebreak = 0.12;
    // RMS below which the input counts as silence and no tempo is reported.
    double silenceFloor = 0.002;
    // Receives the periodicity table of every estimate when set (diagnostics; allocates).
    std::function<void(std::string_view text)> onDebug;
};

class TempoAnalyzer {
  public:
    using Parameters = TempoParameters;

    // `sampleRate` in Hz (positive); `offline` for a whole file (five minutes of onset history).
    TempoAnalyzer(double sampleRate, bool offline, Parameters parameters = {});
    ~TempoAnalyzer();
    TempoAnalyzer(const TempoAnalyzer&) = delete;
    TempoAnalyzer& operator=(const TempoAnalyzer&) = delete;

    void append(std::span<const float> samples);
    void reset();

    TempoEstimate estimate();              // live: median, lock and agreement
    TempoEstimate estimateGlobal() const;  // whole history (last minute at most); changes nothing
    void unlock();

    double rms() const { return rms_; }
    int64_t regimeChanges() const { return regimeChanges_; }
    int64_t framesSeen() const { return framesSeen_; }
    BPMBounds bpmRange() const { return bpmRange_; }
    void setBpmRange(BPMBounds range) { bpmRange_ = range; }

    double sampleRate() const { return sampleRate_; }
    double framesPerSecond() const { return sampleRate_ / hop_; }
    // The lock's state, for diagnostics.
    double lockedBPM() const { return lockedBPM_; }
    double candidateBPM() const { return candidateBPM_; }

    // Reads an onset curve given directly; lets tests drive the decision without audio.
    void appendOnsetValuesForTesting(std::span<const float> values, double level);

  private:
    struct Periodicity;
    class Scratch;

    size_t maxODFFrames() const;
    std::optional<Periodicity> periodicity(double seconds) const;
    void reportLags(size_t minLag, size_t maxLag) const;
    void collectCandidates(size_t minLag, size_t maxLag, size_t globalBest) const;
    double climb(double start) const;
    double clarity(double bestScore, size_t minLag, size_t maxLag) const;
    double score(double lag, bool usePrior) const;
    double acfAt(double lag) const;
    double prior(double lag) const;
    double lock(double median, const Periodicity& evidence);
    void pushOnset(float value);

    Parameters parameters_;
    size_t fftSize_;
    size_t hop_;
    double lockedBPM_ = 0;
    double candidateBPM_ = 0;
    int64_t candidateSinceFrame_ = 0;
    int64_t framesSeen_ = 0;
    int64_t regimeChanges_ = 0;
    BPMBounds bpmRange_{60, 200};
    double sampleRate_;
    FFTMagnitude fft_;
    std::vector<float> mag_;
    std::vector<float> prevMag_;
    std::vector<float> pending_;
    SlidingWindow<float> odf_;
    std::vector<double> recentBPM_;
    double rms_ = 0;
    bool haveFirstFrame_ = false;
    bool offline_;
    std::unique_ptr<Scratch> scratch_;  // periodicity work buffers, reused across estimates
};

}  // namespace velquin
