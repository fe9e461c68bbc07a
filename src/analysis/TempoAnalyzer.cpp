#include "TempoAnalyzer.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <string>
#include <utility>

#include "BlockLevel.h"
#include "Format.h"

namespace velquin {

namespace {

constexpr std::array<double, 4> lagHarmonicWeights{1.0, 0.5, 0.34, 0.25};
constexpr double negativeInfinity = -std::numeric_limits<double>::infinity();
constexpr size_t recentCapacity = 10;

int64_t hopFor(double sampleRate) {
    return std::max<int64_t>(std::lround(sampleRate / 100.0), 64);
}

int64_t fftSizeFor(int64_t hop) {
    int64_t size = 1024;
    while (size < 2 * hop) size *= 2;
    return size;
}

// Leaves the `count` highest-scoring values first, best first, ties in their original order, and drops
// the rest: what a stable sort and a cut would give, without the sort's temporary buffer.
template <typename Score>
void keepBestInOrder(std::vector<int64_t>& values, size_t count, const Score& score) {
    count = std::min(count, values.size());
    for (size_t k = 0; k < count; ++k) {
        size_t best = k;
        for (size_t j = k + 1; j < values.size(); ++j)
            if (score(values[j]) > score(values[best])) best = j;
        std::rotate(values.begin() + static_cast<std::ptrdiff_t>(k),
                    values.begin() + static_cast<std::ptrdiff_t>(best),
                    values.begin() + static_cast<std::ptrdiff_t>(best) + 1);
    }
    values.resize(count);
}

}  // namespace

struct TempoAnalyzer::Periodicity {
    double bpm;
    double clarity;
    const TempoAnalyzer* owner;  // its scratch holds the autocorrelation that `support` reads

    // Harmonic autocorrelation score, without prior, of a tempo in BPM.
    double support(double bpm) const { return owner->score(owner->framesPerSecond() * 60.0 / bpm, false); }
};

// Work buffers of the periodicity analysis, sized once for the longest history.
class TempoAnalyzer::Scratch {
  public:
    std::vector<double> d;
    std::vector<double> e;
    std::vector<double> acf;
    std::vector<double> scores;
    std::vector<int64_t> lags;
    int64_t M = 0;
};

TempoAnalyzer::TempoAnalyzer(double sampleRate, bool offline, Parameters parameters)
    : parameters_(std::move(parameters)),
      fftSize_(fftSizeFor(hopFor(sampleRate))),
      hop_(hopFor(sampleRate)),
      sampleRate_(sampleRate),
      fft_(fftSize_),
      mag_(static_cast<size_t>(fftSize_ / 2), 0.0f),
      prevMag_(static_cast<size_t>(fftSize_ / 2), 0.0f),
      offline_(offline),
      scratch_(std::make_unique<Scratch>()) {
    pending_.reserve(static_cast<size_t>(4 * fftSize_));
    const auto maxFrames = static_cast<size_t>(std::max<int64_t>(maxODFFrames(), 0));
    odf_.reserve(maxFrames);
    recentBPM_.reserve(recentCapacity + 1);
    const size_t analysed = offline_ ? static_cast<size_t>(framesPerSecond() * 60.0) + 1 : maxFrames;
    scratch_->d.reserve(analysed);
    scratch_->e.reserve(analysed);
}

TempoAnalyzer::~TempoAnalyzer() = default;

int64_t TempoAnalyzer::maxODFFrames() const {
    const double fps = framesPerSecond();
    if (offline_) return static_cast<int64_t>(fps * 300.0);
    return static_cast<int64_t>(parameters_.historySeconds * fps) + 8;
}

void TempoAnalyzer::pushOnset(float value) {
    ++framesSeen_;
    odf_.push_back(value);
    const int64_t limit = maxODFFrames();
    if (static_cast<int64_t>(odf_.size()) > limit)
        odf_.keepLast(static_cast<size_t>(std::max<int64_t>(limit, 0)));
}

void TempoAnalyzer::append(std::span<const float> samples) {
    if (samples.empty()) return;
    rms_ = 0.85 * rms_ + 0.15 * static_cast<double>(blockLevel(samples));
    pending_.insert(pending_.end(), samples.begin(), samples.end());

    const size_t bins = mag_.size();
    size_t offset = 0;
    while (pending_.size() - offset >= static_cast<size_t>(fftSize_)) {
        fft_.magnitudes(std::span(pending_).subspan(offset), mag_);
        for (size_t i = 0; i < bins; ++i) mag_[i] = std::log1p(50.0f * mag_[i]);
        if (haveFirstFrame_) {
            float flux = 0.0f;
            for (size_t i = 0; i < bins; ++i) flux += std::max(0.0f, mag_[i] - prevMag_[i]);
            pushOnset(flux);
        }
        std::swap(mag_, prevMag_);
        haveFirstFrame_ = true;
        offset += static_cast<size_t>(hop_);
    }
    if (offset > 0) pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(offset));
}

void TempoAnalyzer::appendOnsetValuesForTesting(std::span<const float> values, double level) {
    for (float v : values) pushOnset(v);
    rms_ = level;
}

void TempoAnalyzer::reset() {
    lockedBPM_ = 0;
    candidateBPM_ = 0;
    pending_.clear();
    odf_.clear();
    recentBPM_.clear();
    std::fill(prevMag_.begin(), prevMag_.end(), 0.0f);
    rms_ = 0;
    haveFirstFrame_ = false;
}

void TempoAnalyzer::unlock() {
    lockedBPM_ = 0;
    candidateBPM_ = 0;
    recentBPM_.clear();
}

double TempoAnalyzer::acfAt(double lag) const {
    const std::vector<double>& acf = scratch_->acf;
    const int64_t M = scratch_->M;
    const auto r = static_cast<int64_t>(std::round(lag));
    if (r >= 2 && r + 1 <= M) {
        const double yL = acf[static_cast<size_t>(r - 1)];
        const double y0 = acf[static_cast<size_t>(r)];
        const double yR = acf[static_cast<size_t>(r + 1)];
        const double t = lag - static_cast<double>(r);
        return y0 + t * (yR - yL) / 2.0 + t * t * (yL - 2.0 * y0 + yR) / 2.0;
    }
    const auto i = static_cast<int64_t>(lag);
    if (i < 1 || i + 1 > M) return 0.0;
    const double f = lag - static_cast<double>(i);
    return (1.0 - f) * acf[static_cast<size_t>(i)] + f * acf[static_cast<size_t>(i + 1)];
}

double TempoAnalyzer::score(double lag, bool usePrior) const {
    double sum = 0, wsum = 0;
    for (size_t h = 1; h <= lagHarmonicWeights.size(); ++h) {
        const double harmonicLag = static_cast<double>(h) * lag;
        if (static_cast<int64_t>(harmonicLag) + 1 > scratch_->M) break;
        const double w = lagHarmonicWeights[h - 1];
        sum += w * acfAt(harmonicLag);
        wsum += w;
    }
    if (!(wsum > 0)) return negativeInfinity;
    const double harm = sum / wsum;
    if (!usePrior) return harm;
    return harm * prior(lag);
}

// Log-Gaussian around the range's centre, tilted slightly towards faster tempi.
double TempoAnalyzer::prior(double lag) const {
    const double bpm = framesPerSecond() * 60.0 / lag;
    const double centre = bpmRange_.contains(120.0) ? 120.0 : std::sqrt(bpmRange_.lower * bpmRange_.upper);
    const double x = std::log2(bpm / centre);
    const double z = x / parameters_.priorWidthOctaves;
    return std::exp(-0.5 * z * z) * std::exp(parameters_.fasterTiebreak * x);
}

std::optional<TempoAnalyzer::Periodicity> TempoAnalyzer::periodicity(double seconds) const {
    const double fps = framesPerSecond();
    Scratch& s = *scratch_;

    const std::span<const float> x = odf_.last(static_cast<size_t>(std::max(fps * seconds, 0.0)));
    const auto N = static_cast<int64_t>(x.size());
    if (N < 65) return std::nullopt;

    // Detrend against a centred moving average (shortened at the ends), keep the rises.
    const int64_t w = static_cast<int64_t>(fps * 0.9);
    const int64_t half = std::max<int64_t>(w, 3) / 2;
    s.d.resize(static_cast<size_t>(N));
    {
        double windowSum = 0;
        int64_t lo = 0, hi = -1;
        for (int64_t i = 0; i < N; ++i) {
            const int64_t wantLo = std::max<int64_t>(i - half, 0);
            const int64_t wantHi = std::min<int64_t>(i + half, N - 1);
            while (hi < wantHi) windowSum += static_cast<double>(x[static_cast<size_t>(++hi)]);
            while (lo < wantLo) windowSum -= static_cast<double>(x[static_cast<size_t>(lo++)]);
            const double mean = windowSum / static_cast<double>(hi - lo + 1);
            s.d[static_cast<size_t>(i)] =
                std::max(0.0, static_cast<double>(x[static_cast<size_t>(i)]) - mean);
        }
    }

    // Gaussian smoothing; taps past either end are skipped, not renormalised.
    std::array<double, 9> g{};
    double gsum = 0;
    for (int k = -4; k <= 4; ++k) {
        g[static_cast<size_t>(k + 4)] =
            std::exp(-double(k * k) / (2.0 * parameters_.onsetBlurFrames * parameters_.onsetBlurFrames));
        gsum += g[static_cast<size_t>(k + 4)];
    }
    for (double& v : g) v /= gsum;
    s.e.assign(static_cast<size_t>(N), 0.0);
    for (int64_t i = 0; i < N; ++i) {
        double acc = 0;
        for (int64_t k = -4; k <= 4; ++k) {
            const int64_t j = i + k;
            if (j < 0 || j >= N) continue;
            acc += g[static_cast<size_t>(k + 4)] * s.d[static_cast<size_t>(j)];
        }
        s.e[static_cast<size_t>(i)] = acc;
    }

    // Standardise.
    double mean = 0;
    for (double v : s.e) mean += v;
    mean /= static_cast<double>(N);
    double variance = 0;
    for (double& v : s.e) {
        v -= mean;
        variance += v * v;
    }
    variance /= static_cast<double>(N);
    if (variance <= 1e-12) return std::nullopt;
    const double deviation = std::sqrt(variance);
    for (double& v : s.e) v /= deviation;

    const int64_t minLag = std::max<int64_t>(static_cast<int64_t>(fps * 60.0 / bpmRange_.upper), 2);
    const int64_t maxLag = std::min<int64_t>(static_cast<int64_t>(fps * 60.0 / bpmRange_.lower) + 1, N / 2);
    if (minLag + 2 >= maxLag) return std::nullopt;

    s.acf.assign(static_cast<size_t>(4 * maxLag + 2), 0.0);
    s.M = std::min<int64_t>(4 * maxLag + 1, N - 1);
    const double* e = s.e.data();
    for (int64_t L = 1; L <= s.M; ++L) {
        double acc = 0;
        for (int64_t i = 0; i + L < N; ++i) acc += e[i] * e[i + L];
        s.acf[static_cast<size_t>(L)] = acc / static_cast<double>(N - L);
    }

    s.scores.assign(static_cast<size_t>(maxLag + 1), negativeInfinity);
    for (int64_t L = minLag; L <= maxLag; ++L)
        s.scores[static_cast<size_t>(L)] = score(static_cast<double>(L), true);
    auto scoreAt = [&](int64_t L) { return s.scores[static_cast<size_t>(L)]; };

    int64_t globalBest = minLag;
    for (int64_t L = minLag + 1; L <= maxLag; ++L)
        if (scoreAt(L) > scoreAt(globalBest)) globalBest = L;

    if (parameters_.onDebug) {
        s.lags.clear();
        for (int64_t L = minLag; L <= maxLag; ++L) s.lags.push_back(L);
        std::stable_sort(s.lags.begin(), s.lags.end(),
                         [&](int64_t a, int64_t b) { return scoreAt(a) > scoreAt(b); });
        std::string table = "  lag    bpm     acf     harm    prior   score\n";
        for (size_t i = 0; i < std::min<size_t>(8, s.lags.size()); ++i) {
            const int64_t L = s.lags[i];
            const double bpm = fps * 60.0 / static_cast<double>(L);
            table +=
                format("  %3d  %6.1f  %7.4f  %7.4f  %6.3f  %7.4f\n", L, bpm, s.acf[static_cast<size_t>(L)],
                       score(static_cast<double>(L), false), prior(static_cast<double>(L)), scoreAt(L));
        }
        parameters_.onDebug(table);
    }

    // Candidate peaks: interior local maxima (plateaus count), then the ends, then the global best.
    s.lags.clear();
    if (maxLag - minLag > 1)
        for (int64_t L = minLag + 1; L <= maxLag - 1; ++L)
            if (scoreAt(L - 1) <= scoreAt(L) && scoreAt(L + 1) <= scoreAt(L)) s.lags.push_back(L);
    if (scoreAt(minLag + 1) <= scoreAt(minLag)) s.lags.push_back(minLag);
    if (scoreAt(maxLag - 1) <= scoreAt(maxLag)) s.lags.push_back(maxLag);
    if (std::find(s.lags.begin(), s.lags.end(), globalBest) == s.lags.end()) s.lags.push_back(globalBest);
    keepBestInOrder(s.lags, 6, scoreAt);

    double bestLag = static_cast<double>(globalBest);
    double bestScore = negativeInfinity;
    for (int64_t L0 : s.lags) {
        const double start = static_cast<double>(L0);
        double cur = start;
        double best = score(cur, false);
        double step = 0.25;
        while (true) {
            bool took = false;
            const double candidates[2] = {cur - step, cur + step};
            for (double c : candidates) {
                if (std::abs(c - start) > 0.75) continue;
                const double sc = score(c, false);
                if (sc > best) {
                    best = sc;
                    cur = c;
                    took = true;
                }
            }
            if (took) continue;
            step /= 2;
            if (step <= 0.001) break;
        }
        const double refined = score(cur, true);
        if (refined > bestScore) {
            bestScore = refined;
            bestLag = cur;
        }
    }
    if (!std::isfinite(bestScore)) return std::nullopt;

    double sum = 0;
    int64_t finite = 0;
    for (int64_t L = minLag; L <= maxLag; ++L)
        if (std::isfinite(scoreAt(L))) {
            sum += scoreAt(L);
            ++finite;
        }
    double clarity = 0;
    if (finite > 0) {
        const double mu = sum / static_cast<double>(finite);
        double var = 0;
        for (int64_t L = minLag; L <= maxLag; ++L)
            if (std::isfinite(scoreAt(L))) var += (scoreAt(L) - mu) * (scoreAt(L) - mu);
        var /= static_cast<double>(finite);
        if (var > 1e-12) clarity = (bestScore - mu) / std::sqrt(var);
    }

    return Periodicity{fps * 60.0 / bestLag, clarity, this};
}

double TempoAnalyzer::lock(double m, const Periodicity& p) {
    if (lockedBPM_ <= 0) {
        lockedBPM_ = m;
        return m;
    }
    if (std::abs(m - lockedBPM_) / lockedBPM_ < 0.04) {
        lockedBPM_ = 0.2 * m + 0.8 * lockedBPM_;
        candidateBPM_ = 0;
        return lockedBPM_;
    }
    if (candidateBPM_ > 0 && std::abs(m - candidateBPM_) / candidateBPM_ < 0.04) {
        static constexpr std::array<double, 8> ratios{2.0, 1.0 / 2, 3.0 / 2, 2.0 / 3,
                                                      3.0, 1.0 / 3, 4.0 / 3, 3.0 / 4};
        bool ratio = false;
        for (double r : ratios)
            if (std::abs(m - r * lockedBPM_) / (r * lockedBPM_) < 0.02) {
                ratio = true;
                break;
            }
        const double sLocked = p.support(lockedBPM_);
        const double sNew = p.support(m);
        const double hold = ratio && sLocked > 0 && sNew < 1.4 * sLocked ? parameters_.ratioHoldSeconds
                                                                         : parameters_.switchSeconds;
        if (hold * framesPerSecond() > static_cast<double>(framesSeen_ - candidateSinceFrame_))
            return lockedBPM_;
        if (!ratio) ++regimeChanges_;
        lockedBPM_ = m;
        candidateBPM_ = 0;
        return m;
    }
    candidateBPM_ = m;
    candidateSinceFrame_ = framesSeen_;
    return lockedBPM_;
}

TempoEstimate TempoAnalyzer::estimate() {
    const double fps = framesPerSecond();
    if (static_cast<int64_t>(odf_.size()) < static_cast<int64_t>(fps * 3.0)) return {0, 0, rms_};
    if (rms_ <= parameters_.silenceFloor) {
        recentBPM_.clear();
        return {0, 0, rms_};
    }
    const auto p = periodicity(parameters_.historySeconds);
    if (!p) return {0, 0, rms_};

    recentBPM_.push_back(p->bpm);
    if (recentBPM_.size() >= recentCapacity + 1)
        recentBPM_.erase(recentBPM_.begin(), recentBPM_.end() - static_cast<std::ptrdiff_t>(recentCapacity));

    std::array<double, recentCapacity> sorted{};
    const size_t count = recentBPM_.size();
    std::copy(recentBPM_.begin(), recentBPM_.end(), sorted.begin());
    std::sort(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(count));
    const double median =
        count % 2 == 1 ? sorted[count / 2] : (sorted[count / 2 - 1] + sorted[count / 2]) / 2.0;

    const double shown = lock(median, *p);
    size_t agreeing = 0;
    for (double r : recentBPM_)
        if (std::abs(r - shown) / shown < 0.03) ++agreeing;
    const double agreement = static_cast<double>(agreeing) / static_cast<double>(count);
    const double clarityWeight = std::clamp((p->clarity - 1.0) / 3.0, 0.0, 1.0);
    return {shown, std::min(clarityWeight * (0.35 + 0.65 * agreement), 1.0), rms_};
}

TempoEstimate TempoAnalyzer::estimateGlobal() const {
    if (rms_ <= parameters_.silenceFloor) return {0, 0, rms_};
    const double fps = framesPerSecond();
    if (static_cast<int64_t>(odf_.size()) < static_cast<int64_t>(fps * 3.0)) return {0, 0, rms_};
    const double seconds = std::min(static_cast<double>(odf_.size()) / fps, 60.0);
    const auto p = periodicity(seconds);
    if (!p) return {0, 0, rms_};
    return {p->bpm, std::clamp((p->clarity - 1.0) / 3.0, 0.0, 1.0), rms_};
}

}  // namespace velquin
