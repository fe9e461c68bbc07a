#include "analysis/PreciseKey.h"

#include <algorithm>
#include <cmath>

namespace velquin {

namespace {

using Table = std::array<double, 12>;

// Albrecht & Shanahan (2013), by semitones above the tonic.
constexpr Table corpusMajor{0.238, 0.006, 0.111, 0.006, 0.137, 0.094,
                            0.016, 0.214, 0.009, 0.080, 0.008, 0.081};
constexpr Table corpusMinor{0.220, 0.006, 0.104, 0.123, 0.019, 0.103,
                            0.012, 0.214, 0.062, 0.022, 0.061, 0.052};

// Pearson correlation of `x` with `profile` rotated to `tonic`; 0 when either is flat.
double correlation(const Table& x, const Table& profile, int64_t tonic) {
    double mx = 0, mp = 0;
    for (size_t i = 0; i < 12; ++i) {
        mx += x[i];
        mp += profile[i];
    }
    mx /= 12;
    mp /= 12;
    double sxy = 0, sxx = 0, syy = 0;
    for (size_t i = 0; i < 12; ++i) {
        const double a = x[i] - mx;
        const double b = profile[static_cast<size_t>((static_cast<int64_t>(i) - tonic + 12) % 12)] - mp;
        sxy += a * b;
        sxx += a * a;
        syy += b * b;
    }
    return sxx > 0 && syy > 0 ? sxy / std::sqrt(sxx * syy) : 0;
}

}  // namespace

void preciseKey::Accumulator::add(Frames frames) {
    for (const KeyAnalyzer::DumpRow& row : frames) {
        if (count_ == 0) first_ = row.seconds;
        ++count_;
        const bool opening = row.seconds <= first_ + p_.edgeSeconds;
        const double weight = opening ? 1.0 + p_.edgeWeight : 1.0;
        for (size_t i = 0; i < 12; ++i) chroma_[i] += weight * row.chroma[i];
        const bool hasBass = row.bass >= 0 && row.bass < 12;
        if (hasBass) bass_[static_cast<size_t>(row.bass)] += weight;
        // The closing seconds' extra weight is added at the end; an opening frame already has it.
        if (!opening) tail_.push_back({row.seconds, row.chroma, hasBass ? row.bass : -1});
        while (!tail_.empty() && tail_.front().seconds < row.seconds - p_.edgeSeconds) tail_.pop_front();
    }
}

std::array<double, 24> preciseKey::Accumulator::scores(std::optional<MusicalKey> other) const {
    std::array<double, 12> chroma = chroma_;
    std::array<double, 12> bass = bass_;
    for (const Tail& t : tail_) {
        for (size_t i = 0; i < 12; ++i) chroma[i] += p_.edgeWeight * t.chroma[i];
        if (t.bass >= 0) bass[static_cast<size_t>(t.bass)] += p_.edgeWeight;
    }
    std::array<double, 24> result{};
    const auto& keys = MusicalKey::all();
    for (size_t k = 0; k < keys.size(); ++k) {
        const MusicalKey key = keys[k];
        const Table& corpus = key.isMinor ? corpusMinor : corpusMajor;
        const Table& even = key.isMinor ? KeyProfile::temperleyMinor : KeyProfile::temperleyMajor;
        const double a =
            correlation(chroma, corpus, key.tonic) + p_.bassWeight * correlation(bass, corpus, key.tonic);
        const double b =
            correlation(chroma, even, key.tonic) + p_.bassWeight * correlation(bass, even, key.tonic);
        result[k] = a + p_.temperleyWeight * b;
    }
    // The tonic's third has the last word on the mode: the profiles weigh every degree, and a piece
    // whose sixth and seventh lean the other way can outvote its own third.
    const auto best = static_cast<size_t>(std::max_element(result.begin(), result.end()) - result.begin());
    const auto tonic = static_cast<size_t>(keys[best].tonic);
    const double major = chroma[(tonic + 4) % 12], minor = chroma[(tonic + 3) % 12];
    bool isMinor = minor > major || (minor == major && keys[best].isMinor);
    // Level thirds say nothing; the other reading, made frame by frame, then names the mode.
    if (other && other->tonic == keys[best].tonic &&
        std::abs(major - minor) < p_.levelThirds * (major + minor))
        isMinor = other->isMinor;
    if (isMinor != keys[best].isMinor) {
        const size_t parallel = best ^ 1;  // MusicalKey::all() lists each tonic's major and minor together
        std::swap(result[best], result[parallel]);
    }
    return result;
}

std::array<double, 24> preciseKey::scores(Frames frames, const PreciseKeyParameters& p,
                                          std::optional<MusicalKey> other) {
    Accumulator accumulator(p);
    accumulator.add(frames);
    return accumulator.scores(other);
}

KeyEstimate preciseKey::decide(Frames frames, const KeyEstimate& base, const PreciseKeyParameters& p) {
    if (frames.empty()) return base;
    return decide(scores(frames, p, base.key), base, p);
}

KeyEstimate preciseKey::decide(const std::array<double, 24>& score, const KeyEstimate& base,
                               const PreciseKeyParameters& p) {
    if (!base.key) return base;
    size_t best = 0;
    for (size_t k = 1; k < score.size(); ++k)
        if (score[k] > score[best]) best = k;
    size_t second = best == 0 ? 1 : 0;
    for (size_t k = 0; k < score.size(); ++k)
        if (k != best && score[k] > score[second]) second = k;
    const auto& keys = MusicalKey::all();
    KeyEstimate result = base;
    result.key = keys[best];
    const double lead = score[best] - score[second];
    result.alternative.reset();
    if (keys[second].isRelativeOf(keys[best]) && lead < p.relativeMargin) result.alternative = keys[second];
    const double evidence = std::clamp((score[best] - p.fitFloor) / (p.fitFull - p.fitFloor), 0.0, 1.0);
    result.confidence = evidence / (1.0 + std::exp(-(p.confidenceOffset + p.confidenceSlope * lead)));
    return result;
}

}  // namespace velquin
