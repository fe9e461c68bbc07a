#pragma once
// The live tempo and key analyzers of one stream and the coupling between them: a new tempo regime means a
// new song, so the key keeps only its most recent evidence; a key restart (a song change the key analyzer
// heard) releases the tempo lock. Used by the live service, the timeline and the benchmark alike.
//
// Not thread-safe: one thread uses an instance. Allocates nothing in `append` and `read` once the
// analyzers' histories have filled.

#include <cstdint>
#include <memory>
#include <span>

#include "analysis/KeyAnalyzer.h"
#include "analysis/TempoAnalyzer.h"

namespace velquin {

struct AnalyzerParameters {
    TempoParameters tempo;
    KeyParameters key;
};

class LiveAnalysis {
  public:
    // Key evidence kept across a change of tempo regime: enough for the new song's first chords.
    static constexpr double keepAfterSongChangeSeconds = 8.0;

    struct Reading {
        TempoEstimate tempo;
        KeyEstimate key;
    };

    LiveAnalysis(double sampleRate, BPMBounds bounds, AnalyzerParameters parameters = {});

    void append(std::span<const float> samples);
    // Both estimates, tempo first, with the coupling applied in between and after.
    Reading read();

    // New analyzers at another rate; the counts already seen carry over, so a fresh pair's first read
    // reacts once if they differ (as after a restart of the stream).
    void rebuild(double sampleRate);
    void setBpmRange(BPMBounds bounds);
    void reset();

    TempoAnalyzer& tempo() { return *tempo_; }
    KeyAnalyzer& key() { return *key_; }
    const TempoAnalyzer& tempo() const { return *tempo_; }
    const KeyAnalyzer& key() const { return *key_; }
    int64_t seenRegimeChanges() const { return seenRegimeChanges_; }
    int64_t seenKeyRestarts() const { return seenKeyRestarts_; }

  private:
    AnalyzerParameters parameters_;
    BPMBounds bounds_;
    std::unique_ptr<TempoAnalyzer> tempo_;
    std::unique_ptr<KeyAnalyzer> key_;
    int64_t seenRegimeChanges_ = 0;
    int64_t seenKeyRestarts_ = 0;
};

}  // namespace velquin
