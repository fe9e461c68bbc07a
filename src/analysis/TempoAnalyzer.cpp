#include "analysis/TempoAnalyzer.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <string>
#include <utility>

#include "analysis/BlockLevel.h"
#include "analysis/Format.h"
#include "analysis/Log1p.h"
#include "analysis/OnsetCurve.h"

namespace velquin {

namespace {

constexpr std::array<double, 4> lagHarmonicWeights{1.0, 0.5, 0.34, 0.25};
constexpr double negativeInfinity = -std::numeric_limits<double>::infinity();
constexpr size_t recentCapacity = 10;

size_t hopFor(double sampleRate) {
    return static_cast<size_t>(std::max(std::lround(sampleRate / 100.0), 64L));
}

size_t fftSizeFor(size_t hop) {
    size_t size = 1024;
    while (size < 2 * hop) size *= 2;
    return size;
}

// Leaves the `count` highest-scoring values first, best first, ties in their original order, and drops
// the rest: what a stable sort and a cut would give, without the sort's temporary buffer.
template <typename Score>
void keepBestInOrder(std::vector<size_t>& values, size_t count, const Score& score) {
    count = std::min(count, values.size());
    for (size_t k = 0; k < count; ++k) {
        size_t best = k;
        for (size_t j = k + 1; j < values.size(); ++j)
            if (score(values[j]) > score(values[best])) best = j;
        const auto first = values.begin();
        std::rotate(first + std::ptrdiff_t(k), first + std::ptrdiff_t(best),
                    first + std::ptrdiff_t(best + 1));
    }
    values.resize(count);
}

}  // namespace

struct TempoAnalyzer::Periodicity {
    double bpm;
    double clarity;
    const TempoAnalyzer* owner;  // its scratch holds the autocorrelation that `support` reads

    // Harmonic autocorrelation score, without prior, of a tempo in BPM.
    double support(double tempo) const {
        return owner->score(owner->framesPerSecond() * 60.0 / tempo, false);
    }
};

// Work buffers of the periodicity analysis, sized once for the longest history.
class TempoAnalyzer::Scratch {
  public:
    std::vector<double> d;
    std::vector<double> e;
    std::vector<double> acf;
    std::vector<double> scores;
    std::vector<size_t> lags;
    int64_t M = 0;  // the longest lag in acf
};

TempoAnalyzer::TempoAnalyzer(double sampleRate, bool offline, Parameters parameters)
    : parameters_(std::move(parameters)),
      fftSize_(fftSizeFor(hopFor(sampleRate))),
      hop_(hopFor(sampleRate)),
      sampleRate_(sampleRate),
      fft_(fftSize_),
      mag_(fftSize_ / 2, 0.0f),
      prevMag_(fftSize_ / 2, 0.0f),
      offline_(offline),
      scratch_(std::make_unique<Scratch>()) {
    pending_.reserve(4 * fftSize_);
    const size_t maxFrames = maxODFFrames();
    odf_.reserve(maxFrames);
    recentBPM_.reserve(recentCapacity + 1);
    const size_t analysed = offline_ ? static_cast<size_t>(framesPerSecond() * 60.0) + 1 : maxFrames;
    scratch_->d.reserve(analysed);
    scratch_->e.reserve(analysed);
}

TempoAnalyzer::~TempoAnalyzer() = default;

size_t TempoAnalyzer::maxODFFrames() const {
    const double fps = framesPerSecond();
    if (offline_) return static_cast<size_t>(fps * 300.0);
    return static_cast<size_t>(
        std::max<int64_t>(static_cast<int64_t>(parameters_.historySeconds * fps) + 8, 0));
}

void TempoAnalyzer::pushOnset(float value) {
    ++framesSeen_;
    odf_.push_back(value);
    const size_t limit = maxODFFrames();
    if (odf_.size() > limit) odf_.keepLast(limit);
}

void TempoAnalyzer::append(std::span<const float> samples) {
    if (samples.empty()) return;
    rms_ = 0.85 * rms_ + 0.15 * static_cast<double>(blockLevel(samples));
    pending_.insert(pending_.end(), samples.begin(), samples.end());

    const size_t bins = mag_.size();
    size_t offset = 0;
    while (pending_.size() - offset >= fftSize_) {
        fft_.magnitudes(std::span(pending_).subspan(offset), mag_);
        for (float& m : mag_) m *= 50.0f;
        log1pInPlace(mag_);
        if (haveFirstFrame_) {
            float flux = 0.0f;
            for (size_t i = 0; i < bins; ++i) flux += std::max(0.0f, mag_[i] - prevMag_[i]);
            pushOnset(flux);
        }
        std::swap(mag_, prevMag_);
        haveFirstFrame_ = true;
        offset += hop_;
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
    const size_t n = x.size();
    if (n < 65) return std::nullopt;

    detrend(x, static_cast<size_t>(std::max<int64_t>(static_cast<int64_t>(fps * 0.9), 3) / 2), s.d);
    blur(s.d, parameters_.onsetBlurFrames, s.e);
    if (!standardise(s.e)) return std::nullopt;

    const auto minLag =
        static_cast<size_t>(std::max<int64_t>(static_cast<int64_t>(fps * 60.0 / bpmRange_.upper), 2));
    const auto maxLag = std::min(static_cast<size_t>(fps * 60.0 / bpmRange_.lower) + 1, n / 2);
    if (minLag + 2 >= maxLag) return std::nullopt;

    // Up to the fourth multiple of the slowest lag, for the harmonic score.
    s.M = static_cast<int64_t>(std::min(4 * maxLag + 1, n - 1));
    autocorrelate(s.e, static_cast<size_t>(s.M), 4 * maxLag + 2, s.acf);

    s.scores.assign(maxLag + 1, negativeInfinity);
    size_t globalBest = minLag;
    for (size_t lag = minLag; lag <= maxLag; ++lag) {
        s.scores[lag] = score(lag, true);
        if (s.scores[lag] > s.scores[globalBest]) globalBest = lag;
    }
    if (parameters_.onDebug) reportLags(minLag, maxLag);

    collectCandidates(minLag, maxLag, globalBest);
    double bestLag = globalBest;
    double bestScore = negativeInfinity;
    for (size_t start : s.lags) {
        const double lag = climb(start);
        const double refined = score(lag, true);
        if (refined > bestScore) {
            bestScore = refined;
            bestLag = lag;
        }
    }
    if (!std::isfinite(bestScore)) return std::nullopt;
    return Periodicity{fps * 60.0 / bestLag, clarity(bestScore, minLag, maxLag), this};
}

// The top of the score table, best first, for the debug callback.
void TempoAnalyzer::reportLags(size_t minLag, size_t maxLag) const {
    Scratch& s = *scratch_;
    s.lags.clear();
    for (size_t lag = minLag; lag <= maxLag; ++lag) s.lags.push_back(lag);
    std::stable_sort(s.lags.begin(), s.lags.end(),
                     [&](size_t a, size_t b) { return s.scores[a] > s.scores[b]; });
    std::string table = "  lag    bpm     acf     harm    prior   score\n";
    for (size_t lag : std::span(s.lags).first(std::min<size_t>(8, s.lags.size())))
        table += format("  %3d  %6.1f  %7.4f  %7.4f  %6.3f  %7.4f\n", lag, framesPerSecond() * 60.0 / lag,
                        s.acf[lag], score(lag, false), prior(lag), s.scores[lag]);
    parameters_.onDebug(table);
}

// Interior local maxima of the score (plateaus count), then either end when it rises towards it, then
// the global best; the six best of them, in order.
void TempoAnalyzer::collectCandidates(size_t minLag, size_t maxLag, size_t globalBest) const {
    Scratch& s = *scratch_;
    const auto& at = s.scores;
    s.lags.clear();
    for (size_t lag = minLag + 1; lag + 1 <= maxLag; ++lag)
        if (at[lag - 1] <= at[lag] && at[lag + 1] <= at[lag]) s.lags.push_back(lag);
    if (at[minLag + 1] <= at[minLag]) s.lags.push_back(minLag);
    if (at[maxLag - 1] <= at[maxLag]) s.lags.push_back(maxLag);
    if (std::find(s.lags.begin(), s.lags.end(), globalBest) == s.lags.end()) s.lags.push_back(globalBest);
    keepBestInOrder(s.lags, 6, [&](size_t lag) { return at[lag]; });
}

// Hill-climbs the prior-free score to a fractional lag within ¾ frame of `start`, halving the step
// from ¼ frame down to a thousandth.
double TempoAnalyzer::climb(double start) const {
    double lag = start;
    double best = score(lag, false);
    double step = 0.25;
    while (step > 0.001) {
        bool took = false;
        for (double c : {lag - step, lag + step}) {
            if (std::abs(c - start) > 0.75) continue;
            const double sc = score(c, false);
            if (sc > best) {
                best = sc;
                lag = c;
                took = true;
            }
        }
        if (!took) step /= 2;
    }
    return lag;
}

// How far the winner stands above the other lags' scores, in standard deviations.
double TempoAnalyzer::clarity(double bestScore, size_t minLag, size_t maxLag) const {
    const std::span<const double> scores = std::span(scratch_->scores).subspan(minLag, maxLag - minLag + 1);
    double sum = 0;
    size_t finite = 0;
    for (double v : scores)
        if (std::isfinite(v)) {
            sum += v;
            ++finite;
        }
    if (finite == 0) return 0;
    const double mu = sum / finite;
    double var = 0;
    for (double v : scores)
        if (std::isfinite(v)) var += (v - mu) * (v - mu);
    var /= finite;
    return var > 1e-12 ? (bestScore - mu) / std::sqrt(var) : 0;
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
