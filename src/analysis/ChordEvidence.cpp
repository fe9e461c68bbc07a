#include "analysis/ChordEvidence.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "analysis/Format.h"
#include "analysis/FrameCount.h"
#include "analysis/KeyAnalyzer.h"
#include "analysis/MusicalKey.h"

namespace velquin {

namespace {

// Unit-length triads: major on 0–11, minor on 12–23, by root.
const std::array<ChordEvidence::Chroma, 24>& triads() {
    static const std::array<ChordEvidence::Chroma, 24> table = [] {
        std::array<ChordEvidence::Chroma, 24> result{};
        for (size_t t = 0; t < 24; ++t) {
            const size_t r = t % 12;
            const size_t third = t < 12 ? 4 : 3;
            result[t][r] = 1;
            result[t][(r + third) % 12] = 1;
            result[t][(r + 7) % 12] = 1;
            for (auto& v : result[t]) v /= 1.7320508075688772;
        }
        return result;
    }();
    return table;
}

constexpr std::array<double, 24> majorFunction = [] {
    std::array<double, 24> f{};
    f[0] = 1.0;
    f[5] = 0.6;
    f[7] = 0.7;
    f[14] = 0.4;
    f[16] = 0.3;
    f[21] = 0.55;
    return f;
}();

constexpr std::array<double, 24> minorFunction = [] {
    std::array<double, 24> f{};
    f[3] = 0.55;
    f[7] = 0.6;
    f[8] = 0.55;
    f[10] = 0.45;
    f[12] = 1.0;
    f[14] = 0.15;
    f[17] = 0.5;
    f[19] = 0.5;
    return f;
}();

}  // namespace

std::array<double, 24> ChordEvidence::scores(std::span<const Chroma> mid, double frameRate,
                                             const KeyParameters& p) {
    std::array<double, 24> scores{};
    if (!(p.chordWeight > 0)) return scores;
    const size_t window =
        std::max<size_t>(2, truncatedCount(p.chordWindowSeconds * frameRate, size_t{1} << 40));
    if (mid.size() < window) return scores;

    segment(mid, window, p.chordMinConfidence);
    double total = 0;
    for (const Segment& s : segments_) total += s.frames;
    if (!(total > 0)) return scores;

    const double ramp = strength(total, p.chordCoverageSeconds * frameRate);
    if (ramp > 0) {
        for (size_t tonic = 0; tonic < 12; ++tonic) {
            for (bool minor : {false, true}) {
                const auto& function = minor ? minorFunction : majorFunction;
                double sum = 0;
                for (const Segment& s : segments_) {
                    const size_t role = (s.root + 12 - tonic) % 12 + (s.isMinor ? 12 : 0);
                    sum += s.confidence * function[role] * s.frames;
                }
                scores[tonic + (minor ? 12 : 0)] = ramp * sum / total;
            }
        }
    }
    if (p.onDebug) report(ramp, p);
    return scores;
}

// Consecutive windows with the same best triad (above `minConfidence`) make one segment.
void ChordEvidence::segment(std::span<const Chroma> mid, size_t window, double minConfidence) {
    segments_.clear();
    const auto& templates = triads();
    for (size_t start = 0; start + window <= mid.size(); start += window) {
        Chroma v{};
        for (const Chroma& frame : mid.subspan(start, window))
            for (size_t i = 0; i < 12; ++i) v[i] += frame[i];
        double energy = 0;
        for (double x : v) energy += x * x;
        const double norm = std::sqrt(energy);
        if (!(norm > 0)) continue;
        double best = -1;
        size_t bestIndex = 0;
        for (size_t t = 0; t < 24; ++t) {
            double dot = 0;
            for (size_t i = 0; i < 12; ++i) dot += v[i] * templates[t][i];
            const double match = dot / norm;
            if (match > best) {
                best = match;
                bestIndex = t;
            }
        }
        if (best < minConfidence) continue;
        const size_t root = bestIndex % 12;
        const bool minor = bestIndex >= 12;
        if (!segments_.empty() && segments_.back().root == root && segments_.back().isMinor == minor) {
            segments_.back().frames += window;
            segments_.back().confidence = std::max(segments_.back().confidence, best);
        } else {
            segments_.push_back({root, minor, best, window});
        }
    }
}

// A quarter per distinct chord, scaled down until `coverageFrames` of chords have been heard.
double ChordEvidence::strength(double frames, double coverageFrames) const {
    std::array<bool, 24> seen{};
    int distinct = 0;
    for (const Segment& s : segments_) {
        bool& chord = seen[s.root + (s.isMinor ? 12 : 0)];
        if (!chord) ++distinct;
        chord = true;
    }
    double strength = std::min(0.25 * distinct, 1.0);
    const double coverage = frames / coverageFrames;
    if (coverage < 1) strength *= coverage;
    return strength;
}

void ChordEvidence::report(double strength, const KeyParameters& p) const {
    std::string list;
    for (const Segment& s : segments_) {
        if (!list.empty()) list += ' ';
        list += asciiNoteNames[s.root];
        if (s.isMinor) list += 'm';
        list += ':' + std::to_string(s.frames);
    }
    if (list.size() > 300) list.resize(300);  // ASCII only, so bytes are characters
    p.onDebug("  chords: " + list + format(" (ramp %.2f)\n", strength));
}

}  // namespace velquin
