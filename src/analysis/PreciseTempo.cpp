#include "analysis/PreciseTempo.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace velquin {

namespace {

// The novelty's rises over its centred moving average of 2·half + 1 frames (shortened at the ends).
std::vector<double> detrended(std::span<const float> x, size_t half) {
    const size_t n = x.size();
    std::vector<double> prefix(n + 1, 0.0);
    for (size_t i = 0; i < n; ++i) prefix[i + 1] = prefix[i] + x[i];
    std::vector<double> out(n);
    for (size_t i = 0; i < n; ++i) {
        const size_t lo = i >= half ? i - half : 0;
        const size_t hi = std::min(n, i + half + 1);
        const double mean = (prefix[hi] - prefix[lo]) / static_cast<double>(hi - lo);
        out[i] = std::max(0.0, x[i] - mean);
    }
    return out;
}

std::vector<double> hannTaper(size_t window) {
    std::vector<double> taper(window);
    for (size_t i = 0; i < window; ++i)
        taper[i] = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * static_cast<double>(i) /
                                        static_cast<double>(window - 1));
    return taper;
}

// The autocorrelation tempogram: each window's autocorrelation at every lag (0 … window − 1), relative
// to the window's energy, averaged over the windows. Its cosine transform is the Fourier tempogram
// (the power spectrum of a window is the transform of its autocorrelation), so one array holds both.
std::vector<double> autocorrelogram(std::span<const double> d, size_t window, size_t hop) {
    std::vector<double> acf(window, 0.0);
    const std::vector<double> taper = hannTaper(window);
    std::vector<double> seg(window), reversed(window), sums(window);
    size_t used = 0;
    for (size_t start = 0; start + window <= d.size(); start += hop) {
        double mean = 0;
        for (size_t i = 0; i < window; ++i) mean += d[start + i];
        mean /= static_cast<double>(window);
        double energy = 0;
        for (size_t i = 0; i < window; ++i) {
            seg[i] = (d[start + i] - mean) * taper[i];
            energy += seg[i] * seg[i];
        }
        if (!(energy > 1e-12)) continue;
        ++used;
        // sums[lag] = Σ seg[i]·seg[i − lag], accumulated over i so that the inner loop runs along the lags
        // (and vectorises); reversed[window − 1 − i + lag] is seg[i − lag].
        for (size_t i = 0; i < window; ++i) reversed[window - 1 - i] = seg[i];
        std::fill(sums.begin(), sums.end(), 0.0);
        for (size_t i = 0; i < window; ++i) {
            const double x = seg[i];
            const double* back = reversed.data() + (window - 1 - i);
            for (size_t lag = 0; lag <= i; ++lag) sums[lag] += x * back[lag];
        }
        for (size_t lag = 0; lag < window; ++lag) acf[lag] += sums[lag] / energy;
    }
    if (used > 0)
        for (double& v : acf) v /= static_cast<double>(used);
    return acf;
}

// The Fourier tempogram at `bpm` from the autocorrelogram: r(0) + 2·Σ r(l)·cos(ω·l).
double fourierAt(std::span<const double> acf, double bpm, double fps) {
    const double w = 2.0 * std::numbers::pi * bpm / 60.0 / fps;
    const double twoCos = 2.0 * std::cos(w);
    double previous = 1.0, current = std::cos(w);  // cos(0·w), cos(1·w), then by recurrence
    double sum = acf[0];
    for (size_t l = 1; l < acf.size(); ++l) {
        sum += 2.0 * acf[l] * current;
        const double next = twoCos * current - previous;
        previous = current;
        current = next;
    }
    return sum;
}

// How strongly the novelty recurs half a period after its strongest phase, folded at `period` frames:
// log of the half-period peak over the main one (0: as strong, very negative: nothing there).
double halfPeriodContrast(std::span<const double> d, double period) {
    const auto bins = static_cast<size_t>(std::max(4L, std::lround(period)));
    std::vector<double> sum(bins, 0.0), count(bins, 0.0);
    for (size_t k = 0; k < d.size(); ++k) {
        const auto bin = static_cast<size_t>(std::floor(std::fmod(static_cast<double>(k), period))) % bins;
        sum[bin] += d[k];
        count[bin] += 1;
    }
    std::vector<double> profile(bins);
    for (size_t i = 0; i < bins; ++i) {
        const auto mean = [&](size_t j) { return count[j] > 0 ? sum[j] / count[j] : 0.0; };
        profile[i] = (mean((i + bins - 1) % bins) + mean(i) + mean((i + 1) % bins)) / 3;
    }
    const size_t peak =
        static_cast<size_t>(std::max_element(profile.begin(), profile.end()) - profile.begin());
    const size_t opposite = (peak + bins / 2) % bins;
    double half = 0;
    for (size_t j = 0; j < 5; ++j) half = std::max(half, profile[(opposite + bins - 2 + j) % bins]);
    return std::log((half + 1e-9) / (profile[peak] + 1e-9));
}

// The mean over `at` of each frame's largest value within ±2 frames (a tracked beat may land a frame
// or two off the onset).
double meanNearby(std::span<const double> x, std::span<const size_t> at) {
    if (at.empty() || x.empty()) return 0;
    double sum = 0;
    for (const size_t i : at) {
        const size_t lo = i >= 2 ? i - 2 : 0;
        const size_t hi = std::min(x.size(), i + 3);
        sum += lo < hi ? *std::max_element(x.begin() + static_cast<std::ptrdiff_t>(lo),
                                           x.begin() + static_cast<std::ptrdiff_t>(hi))
                       : 0.0;
    }
    return sum / static_cast<double>(at.size());
}

// The same contrast on tracked beats: `x` half-way between consecutive beats against on them. Beats
// tracked through the file follow a human drummer's drift, which blurs a fold.
double halfBeatContrast(std::span<const double> x, std::span<const size_t> beats) {
    if (beats.size() < 3) return 0;
    std::vector<size_t> halves(beats.size() - 1);
    for (size_t i = 0; i + 1 < beats.size(); ++i) halves[i] = (beats[i] + beats[i + 1]) / 2;
    return std::log((meanNearby(x, halves) + 1e-9) / (meanNearby(x, beats.first(beats.size() - 1)) + 1e-9));
}

// Between the slower and the faster of the octave pair of `bpm`, the faster is the beat when the mid
// register (snare, chords) recurs half a slow period after its strongest phase, and when the mid and
// low (kick) registers are about as strong half-way between the slow beats tracked through the file as
// on them.
double octaveChecked(double bpm, std::span<const double> onsets,
                     const PreciseTempoAnalyzer::Registers& novelty, size_t half, double fps,
                     BPMBounds bounds, const PreciseTempoParameters& p) {
    const double slow = bpm / 2 >= bounds.lower ? bpm / 2 : bpm;
    if (2 * slow > bounds.upper) return bpm;
    const std::vector<double> mid = detrended(novelty[OnsetNovelty::mid], half);
    const std::vector<double> low = detrended(novelty[OnsetNovelty::low], half);
    const double period = fps * 60.0 / slow;
    const std::vector<size_t> beats = PreciseTempoAnalyzer::trackBeats(onsets, period, p.beatTightness);
    const double z = p.octaveBias + p.octaveTempoWeight * std::log2(slow / p.priorCentreBpm) +
                     p.octaveHalfBeatWeight * halfPeriodContrast(mid, period) +
                     p.octaveTrackedMidWeight * halfBeatContrast(mid, beats) +
                     p.octaveTrackedLowWeight * halfBeatContrast(low, beats);
    return z > 0 ? 2 * slow : slow;
}

double interpolate(std::span<const double> values, double at) {
    if (at < 0) return values.front();
    const auto i = static_cast<size_t>(at);
    if (i + 1 >= values.size()) return values.back();
    const double f = at - static_cast<double>(i);
    return (1.0 - f) * values[i] + f * values[i + 1];
}

// The autocorrelogram with the Hann taper's own autocorrelation divided out, so that long lags (a bar)
// compare fairly with short ones (a beat).
std::vector<double> untapered(std::span<const double> acf) {
    const size_t window = acf.size();
    const std::vector<double> taper = hannTaper(window);
    std::vector<double> out(window, 0.0);
    double taper0 = 0;
    for (size_t i = 0; i < window; ++i) taper0 += taper[i] * taper[i];
    for (size_t lag = 0; lag < window && taper0 > 0; ++lag) {
        double sum = 0;
        for (size_t i = 0; i + lag < window; ++i) sum += taper[i] * taper[i + lag];
        // The taper's correlation falls to 0 at the window's length; the floor keeps the longest lags'
        // noise from being magnified without bound.
        out[lag] = acf[lag] / std::max(sum / taper0, 0.05);
    }
    return out;
}

// `bpm`, or the tempo ¾, 4/3, ⅔ or 3/2 of it (the nearest ratio first) that puts a whole 2, 3, 4, 6 or 8
// beats in the bar where `bpm` puts no whole number, when the bar stands clearly above the lengths `bpm`
// would make of it and the new tempo recurs clearly by itself (`periodicityAt`, a share of lag 0).
template <typename Periodicity>
double metreChecked(double bpm, std::span<const double> acf, double fps, BPMBounds bounds,
                    const PreciseTempoParameters& p, Periodicity periodicityAt) {
    const size_t window = acf.size();
    if (window < 4) return bpm;
    const auto shortest = static_cast<size_t>(std::ceil(p.barShortestSeconds * fps));
    const size_t longest = std::min(window - 1, static_cast<size_t>(p.barLongestSeconds * fps));
    if (shortest >= longest) return bpm;
    const std::vector<double> strength = untapered(acf);
    const auto bar =
        static_cast<double>(std::max_element(strength.begin() + static_cast<std::ptrdiff_t>(shortest),
                                             strength.begin() + static_cast<std::ptrdiff_t>(longest) + 1) -
                            strength.begin());
    const auto beatsPerBar = [&](double tempo) { return bar / (fps * 60.0 / tempo); };
    const auto whole = [&](double beats) {
        const double count = std::round(beats);
        return count >= 1 && std::abs(beats / count - 1) <= p.barTolerance;
    };
    const double beats = beatsPerBar(bpm);
    if (whole(beats)) return bpm;
    // The bar against the whole bars `bpm` would make instead (the nearest fewer and more beats).
    const double period = fps * 60.0 / bpm;
    double rival = -1e300;
    for (const double count : {std::floor(beats), std::ceil(beats)})
        if (count >= 1 && count * period < static_cast<double>(window - 1))
            rival = std::max(rival, interpolate(strength, count * period));
    const double peak = strength[static_cast<size_t>(bar)];
    if (!(peak > 0) || (peak - rival) / peak < p.barContrast) return bpm;
    for (const double ratio : {0.75, 4.0 / 3.0, 2.0 / 3.0, 1.5}) {
        const double tempo = bpm * ratio;
        if (tempo < bounds.lower || tempo > bounds.upper) continue;
        const double beatsAt = beatsPerBar(tempo);
        const double count = std::round(beatsAt);
        if (whole(beatsAt) && (count == 2 || count == 3 || count == 4 || count == 6 || count == 8) &&
            periodicityAt(tempo) >= p.periodicityFull)
            return tempo;
    }
    return bpm;
}

}  // namespace

PreciseTempoAnalyzer::PreciseTempoAnalyzer(double sampleRate, Parameters parameters)
    : p_(std::move(parameters)), novelty_(sampleRate, p_.novelty) {}

TempoEstimate PreciseTempoAnalyzer::estimate(BPMBounds bounds, const TempoEstimate& other) const {
    const double level = std::sqrt(novelty_.meanSquare());
    if (level <= p_.silenceFloor) return {0, 0, level};
    const Registers registers{novelty_.curve(OnsetNovelty::low), novelty_.curve(OnsetNovelty::mid),
                              novelty_.curve(OnsetNovelty::high)};
    TempoEstimate result = deferred(decide(registers, novelty_.framesPerSecond(), bounds, p_), other, p_);
    result.level = level;
    return result;
}

TempoEstimate PreciseTempoAnalyzer::deferred(const TempoEstimate& own, const TempoEstimate& other,
                                             const Parameters& p) {
    // Without rhythmic evidence of its own this analysis names no tempo, whatever the other says.
    if (!(own.bpm > 0) || !(other.bpm > 0) || other.confidence < p.deferConfidence) return own;
    const double octaves = std::log2(other.bpm / own.bpm);
    if (std::abs(octaves - std::round(octaves)) < std::log2(1.04)) return own;
    return {other.bpm, own.confidence, own.level};
}

TempoEstimate PreciseTempoAnalyzer::decide(const Registers& novelty, double fps, BPMBounds bounds,
                                           const Parameters& p) {
    const size_t n = novelty[0].size();
    if (static_cast<double>(n) < 3.0 * fps || !(bounds.lower > 0) || !(bounds.upper > bounds.lower))
        return {};
    for (const auto& curve : novelty)
        if (curve.size() != n) return {};
    const size_t window = std::min(n, static_cast<size_t>(p.windowSeconds * fps));
    const size_t hop = std::max<size_t>(1, static_cast<size_t>(p.windowHopSeconds * fps));

    std::vector<double> grid;
    const double step = std::exp2(1.0 / p.gridStepsPerOctave);
    for (double bpm = bounds.lower; bpm <= bounds.upper * (1 + 1e-9); bpm *= step) grid.push_back(bpm);
    const size_t combSize = std::min(p.combWeights.size(), p.combMultiples.size());
    double longest = 1.0;
    for (size_t k = 0; k < combSize; ++k) longest = std::max(longest, p.combMultiples[k]);
    const auto maxLag =
        std::min(window - 1, static_cast<size_t>(std::ceil(longest * fps * 60.0 / bounds.lower)) + 1);
    // The whole novelty first, then each register's.
    std::vector<float> whole(n, 0.0f);
    for (const auto& curve : novelty)
        for (size_t i = 0; i < n; ++i) whole[i] += curve[i];
    const size_t half = static_cast<size_t>(p.detrendSeconds * fps / 2);
    const std::vector<double> onsets = detrended(whole, half);
    double onsetMean = 0;
    for (const double v : onsets) onsetMean += v;
    if (onsetMean / static_cast<double>(n) < p.onsetFloor) return {};
    std::vector<double> acf(window, 0.0);
    for (size_t r = 0; r < p.registerWeights.size(); ++r) {
        const double weight = p.registerWeights[r];
        if (weight == 0) continue;
        const std::vector<double> d = r == 0 ? onsets : detrended(novelty[r - 1], half);
        const std::vector<double> part = autocorrelogram(d, window, hop);
        for (size_t i = 0; i < acf.size(); ++i) acf[i] += weight * part[i];
    }

    const auto combAt = [&](double bpm) {
        const double lag = fps * 60.0 / bpm;
        double comb = 0, weights = 0;
        for (size_t k = 0; k < combSize; ++k) {
            const double at = p.combMultiples[k] * lag;
            if (at > static_cast<double>(maxLag)) continue;
            comb += p.combWeights[k] * interpolate(acf, at);
            weights += p.combWeights[k];
        }
        return weights > 0 ? comb / weights : 0.0;
    };
    std::vector<double> score(grid.size());
    for (size_t g = 0; g < grid.size(); ++g) {
        const double comb = combAt(grid[g]);
        const double x = std::log2(grid[g] / p.priorCentreBpm) / p.priorWidthOctaves;
        score[g] = std::log(std::max(comb, 1e-9)) +
                   p.fourierExponent * std::log(std::max(fourierAt(acf, grid[g], fps), 1e-12)) - 0.5 * x * x;
    }
    const size_t best = static_cast<size_t>(std::max_element(score.begin(), score.end()) - score.begin());
    // A parabola through the peak and its neighbours places the tempo between grid steps.
    double offset = 0;
    if (best > 0 && best + 1 < grid.size()) {
        const double a = score[best - 1], b = score[best], c = score[best + 1];
        const double curvature = a - 2 * b + c;
        if (curvature < 0) offset = std::clamp(0.5 * (a - c) / curvature, -0.5, 0.5);
    }
    // The comb as a share of lag 0 (acf[0] is the sum of the register weights: every window's
    // autocorrelation is 1 there).
    const auto periodicityAt = [&](double tempo) { return acf[0] > 0 ? combAt(tempo) / acf[0] : 0.0; };
    const double metric =
        metreChecked(grid[best] * std::pow(step, offset), acf, fps, bounds, p, periodicityAt);
    const double bpm = octaveChecked(metric, onsets, novelty, half, fps, bounds, p);
    size_t at = 0;
    for (size_t g = 1; g < grid.size(); ++g)
        if (std::abs(std::log(grid[g] / bpm)) < std::abs(std::log(grid[at] / bpm))) at = g;
    double rival = -1e300;
    for (size_t g = 0; g < grid.size(); ++g)
        if (std::abs(grid[g] / bpm - 1.0) > 0.04) rival = std::max(rival, score[g]);
    const double margin = rival > -1e300 ? score[at] - rival : 10.0;
    const double periodicity = periodicityAt(bpm);
    if (!std::isfinite(bpm) || !(periodicity >= p.periodicityFloor)) return {};
    const double evidence =
        std::min(1.0, (periodicity - p.periodicityFloor) / (p.periodicityFull - p.periodicityFloor));
    const double confidence = 1.0 / (1.0 + std::exp(-(p.confidenceOffset + p.confidenceSlope * margin)));
    return {bpm, evidence * confidence, 0};
}

std::vector<size_t> PreciseTempoAnalyzer::trackBeats(std::span<const double> onsets, double period,
                                                     double tightness) {
    const size_t n = onsets.size();
    if (!(period >= 2) || n == 0) return {};
    const auto shortest = static_cast<size_t>(std::lround(period / 2));
    const auto longest = static_cast<size_t>(std::lround(2 * period));
    // The transition cost of every beat-to-beat interval: 0 at the period, growing with the square of
    // its log ratio to it.
    std::vector<double> cost(longest + 1, 0.0);
    for (size_t d = shortest; d <= longest; ++d) {
        const double r = std::log(static_cast<double>(d) / period);
        cost[d] = tightness * r * r;
    }
    std::vector<double> total(onsets.begin(), onsets.end());
    std::vector<int64_t> previous(n, -1);
    for (size_t t = shortest; t < n; ++t) {
        double bestValue = 0;
        int64_t bestFrom = -1;
        for (size_t d = shortest; d <= std::min(longest, t); ++d) {
            const double v = total[t - d] - cost[d];
            if (v > bestValue) {
                bestValue = v;
                bestFrom = static_cast<int64_t>(t - d);
            }
        }
        if (bestFrom >= 0) {
            total[t] = onsets[t] + bestValue;
            previous[t] = bestFrom;
        }
    }
    // The last beat is the best ending within the final period; the others follow back from it.
    const size_t tailStart = n - std::min(n, static_cast<size_t>(period));
    auto last = static_cast<int64_t>(
        std::max_element(total.begin() + static_cast<std::ptrdiff_t>(tailStart), total.end()) -
        total.begin());
    std::vector<size_t> beats;
    for (; last >= 0; last = previous[static_cast<size_t>(last)]) beats.push_back(static_cast<size_t>(last));
    std::reverse(beats.begin(), beats.end());
    return beats;
}

}  // namespace velquin
