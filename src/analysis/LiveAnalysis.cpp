#include "analysis/LiveAnalysis.h"

#include <utility>

namespace velquin {

LiveAnalysis::LiveAnalysis(double sampleRate, BPMBounds bounds, AnalyzerParameters parameters)
    : parameters_(std::move(parameters)), bounds_(bounds) {
    rebuild(sampleRate);
}

void LiveAnalysis::rebuild(double sampleRate) {
    tempo_ = std::make_unique<TempoAnalyzer>(sampleRate, false, parameters_.tempo);
    tempo_->setBpmRange(bounds_);
    key_ = std::make_unique<KeyAnalyzer>(sampleRate, false, parameters_.key);
}

void LiveAnalysis::append(std::span<const float> samples) {
    tempo_->append(samples);
    key_->append(samples);
}

LiveAnalysis::Reading LiveAnalysis::read() {
    Reading reading;
    reading.tempo = tempo_->estimate();
    if (tempo_->regimeChanges() != seenRegimeChanges_) {
        seenRegimeChanges_ = tempo_->regimeChanges();
        key_->restart(keepAfterSongChangeSeconds);
    }
    reading.key = key_->estimate();
    if (key_->restarts() != seenKeyRestarts_) {
        seenKeyRestarts_ = key_->restarts();
        tempo_->unlock();
    }
    return reading;
}

void LiveAnalysis::setBpmRange(BPMBounds bounds) {
    bounds_ = bounds;
    tempo_->setBpmRange(bounds);
}

void LiveAnalysis::reset() {
    tempo_->reset();
    key_->reset();
}

}  // namespace velquin
