#pragma once
// Musical key of a mono stream: long overlapping FFT frames → interpolated spectral peaks → pitch-class
// vectors (full range, mid range for chords, one bass note) with a running tuning estimate; the history
// is correlated with rotated key profiles, chord-function evidence is added, and the shown key is held
// with a hysteresis that also notices song changes.
//
// Not thread-safe: one instance is used from one thread. `append` and `estimate` allocate nothing once a
// live history has filled (offline analyzers keep every frame and grow).

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "FFTMagnitude.h"
#include "MusicalKey.h"
#include "SlidingWindow.h"

namespace velquin {

class KeyAnalyzer {
public:
    using Chroma = std::array<double, 12>;

    // One analysed frame, recorded when `dumpFrames` is set.
    struct DumpRow {
        double seconds = 0;  // samples fed when the frame was cut, in seconds
        Chroma chroma{};
        Chroma mid{};
        int64_t bass = -1;  // pitch class, −1 without a bass note
    };

    // `offline`: a whole file rather than a live stream (no song-change or silence restarts, no trimming).
    KeyAnalyzer(double sampleRate, bool offline);
    KeyAnalyzer(const KeyAnalyzer&) = delete;
    KeyAnalyzer& operator=(const KeyAnalyzer&) = delete;

    void append(std::span<const float> samples);
    // Forgets frames and key state for a fresh start of the same stream; not counted as a restart.
    void reset();
    // Keeps the last `keepingSeconds` of frames, clears the key state and counts a restart.
    void restart(double keepingSeconds);

    // The live reading: hysteresis, agreement, confidence ramp and song-change detection.
    KeyEstimate estimate();
    // Stateless ranking over the last `usingLastSeconds` (infinity: the whole history).
    KeyEstimate decide(double usingLastSeconds) const;

    double sampleRate() const { return sampleRate_; }
    int64_t restarts() const { return restarts_; }
    bool dumpFrames = false;
    const std::vector<DumpRow>& dumped() const { return dumped_; }

    int64_t fftSize() const { return fftSize_; }
    int64_t hop() const { return hop_; }
    int64_t maxFrames() const;
    size_t frameCount() const { return frames_.size(); }
    std::span<const Chroma> frames() const { return frames_.view(); }
    std::span<const Chroma> midFrames() const { return midFrames_.view(); }
    std::span<const int64_t> bassFrames() const { return bassFrames_.view(); }
    double tuningOffsetSemitones() const;
    double rms() const { return rms_; }
    int64_t samplesFed() const { return samplesFed_; }
    int64_t restartedAt() const { return restartedAt_; }
    const std::vector<double>& harmonicWeights() const { return harmonicWeights_; }

private:
    struct Peak {
        double frequency = 0;
        double weight = 0;
    };
    struct ChordSegment {
        int64_t root = 0;
        bool isMinor = false;
        double confidence = 0;
        int64_t frames = 0;
    };
    struct Winner {
        int64_t at = 0;
        MusicalKey key;
    };

    void spectralPeaks();
    void addFrame();
    std::array<double, 24> chordScores(double frameRate, size_t lastFrames) const;
    void detectSongChange();
    static double correlation(std::span<const double> a, std::span<const double> b);
    size_t framesFor(double seconds) const;

    double minFrequency_;
    double maxFrequency_;
    std::vector<double> harmonicWeights_;
    double historySeconds_;
    double semitoneTolerance_;
    double peakThreshold_;
    double bassBoost_;
    double bassMaxHz_;
    int64_t frameWeighting_;
    int64_t peakCompression_;
    double chordWeight_;
    double chordWindowSeconds_;
    double chordMinConfidence_;
    double relativeGap_;
    double bassTonicWeight_;
    double sampleRate_;
    int64_t fftSize_;
    int64_t hop_;
    FFTMagnitude fft_;
    std::vector<float> mag_;
    std::vector<float> pending_;
    SlidingWindow<Chroma> frames_;
    SlidingWindow<int64_t> bassFrames_;
    SlidingWindow<Chroma> midFrames_;
    std::vector<DumpRow> dumped_;
    double tuningReal_ = 0;
    double tuningImag_ = 0;
    double rms_ = 0;
    double silenceFloor_ = 0.002;
    double minimumSeconds_ = 4.0;
    double silenceResetSeconds_;
    double switchAfterSeconds_ = 2.0;
    double shiftShortSeconds_;
    double shiftThreshold_;
    double shiftHoldSeconds_;
    int64_t shiftLowSince_ = -1;
    int64_t restartedAt_ = 0;
    int64_t restarts_ = 0;
    int64_t silentSamples_ = 0;
    int64_t samplesFed_ = 0;
    std::optional<MusicalKey> shownKey_;
    std::optional<MusicalKey> candidateKey_;
    int64_t candidateSince_ = 0;
    SlidingWindow<Winner> recentWinners_;
    double agreementSeconds_ = 5.0;
    bool offline_;

    std::vector<Peak> peaks_;                           // scratch of spectralPeaks, reused per frame
    mutable std::vector<ChordSegment> segments_;        // scratch of chordScores, reused per tick
};

}  // namespace velquin
