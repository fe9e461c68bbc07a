#include "analysis/KeyAnalyzer.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <string>
#include <utility>

#include "analysis/BlockLevel.h"
#include "analysis/Format.h"
#include "analysis/FrameCount.h"

namespace velquin {

namespace {

size_t fftSizeFor(double sampleRate) {
    size_t size = 1024;
    // The cap only matters for absurd rates; a frame must last at least 0.37 s.
    while (size / sampleRate < 0.37 && size < (size_t{1} << 26)) size *= 2;
    return size;
}

size_t pitchClass(double roundedPitch) {
    const auto r = static_cast<int64_t>(roundedPitch);
    return static_cast<size_t>(((r % 12) + 12) % 12);
}

}  // namespace

KeyAnalyzer::KeyAnalyzer(double sampleRate, bool offline, Parameters parameters)
    : p_(std::move(parameters)),
      sampleRate_(sampleRate),
      fftSize_(fftSizeFor(sampleRate)),
      hop_(fftSize_ / 4),
      fft_(static_cast<int64_t>(fftSize_)),
      offline_(offline) {
    const double binHz = sampleRate_ / fftSize_;
    peakLo_ = std::max<size_t>(1, truncatedCount(p_.minFrequency / binHz, 1 << 30));
    peakHi_ = std::min(fftSize_ / 2 - 2, truncatedCount(p_.maxFrequency / binHz, 1 << 30));
    if (peakLo_ + 2 < peakHi_) mag_.assign(peakHi_ + 2, 0.0f);
    pending_.reserve(2 * fftSize_);
    peaks_.reserve(64);
    if (!offline_) {
        const size_t capacity = maxFrames() + 1;
        frames_.reserve(capacity);
        chords_ = ChordEvidence(capacity);
        bassFrames_.reserve(capacity);
        midFrames_.reserve(capacity);
        // Winners of the last few seconds at the service's tick rate, with room to spare.
        recentWinners_.reserve(256);
    }
}

size_t KeyAnalyzer::maxFrames() const {
    return truncatedCount(p_.historySeconds * sampleRate_ / hop_, size_t{1} << 40) + 2;
}

size_t KeyAnalyzer::framesFor(double seconds) const {
    return truncatedCount(framesPerSecond() * seconds, frames_.size());
}

double KeyAnalyzer::tuningOffsetSemitones() const {
    if (tuningReal_ == 0 && tuningImag_ == 0) return 0;
    return std::atan2(tuningImag_, tuningReal_) / (2 * std::numbers::pi);
}

void KeyAnalyzer::append(std::span<const float> samples) {
    const auto n = static_cast<int64_t>(samples.size());
    if (n == 0) return;
    const float level = blockLevel(samples);
    rms_ = 0.85 * rms_ + 0.15 * level;
    samplesFed_ += n;

    if (level < p_.silenceFloor) {
        silentSamples_ += n;
        if (!offline_ && silentSamples_ > p_.silenceResetSeconds * sampleRate_ &&
            frames_.size() > 8 * sampleRate_ / hop_) {
            restart(0);
            silentSamples_ = 0;
        }
    } else {
        silentSamples_ = 0;
    }

    pending_.insert(pending_.end(), samples.begin(), samples.end());
    size_t start = 0;
    while (pending_.size() - start >= fftSize_) {
        fft_.magnitudes(std::span(pending_).subspan(start), mag_);
        addFrame();
        start += hop_;
    }
    pending_.erase(pending_.begin(), pending_.begin() + std::ptrdiff_t(start));
}

void KeyAnalyzer::spectralPeaks() {
    peaks_.clear();
    if (mag_.empty()) return;
    const double binHz = sampleRate_ / fftSize_;
    const std::span<const float> band = std::span(mag_).subspan(peakLo_, peakHi_ - peakLo_ + 1);
    float top = 0;
    for (float v : band) top = std::max(top, v);
    if (!(top > 1e-7f)) return;
    const float thr = top * static_cast<float>(p_.peakThreshold);

    for (size_t k = peakLo_; k <= peakHi_; ++k) {
        const float x = mag_[k];
        if (!(x > thr && mag_[k - 1] < x && mag_[k + 1] <= x)) continue;
        const float a = std::log(std::max(mag_[k - 1], 1e-12f));
        const float b = std::log(std::max(x, 1e-12f));
        const float c = std::log(std::max(mag_[k + 1], 1e-12f));
        const float d = a - 2 * b + c;
        float p = 0;
        if (std::fabs(d) > 1e-12f) {
            const float offset = 0.5f * (a - c) / d;
            if (std::fabs(offset) <= 0.5f) p = offset;
        }
        const double f = binHz * (double(k) + double(p));
        if (f < p_.minFrequency || f > p_.maxFrequency) continue;
        double weight;
        switch (p_.peakCompression) {
            case 1:
                weight = std::log(double(x / thr) + 1);
                break;
            case 2:
                weight = std::cbrt(double(x));
                break;
            case 3:
                weight = 1.0;
                break;
            default:
                weight = std::sqrt(double(x));
                break;
        }
        peaks_.push_back({f, weight});
    }
}

void KeyAnalyzer::addFrame() {
    spectralPeaks();
    if (peaks_.empty()) return;

    for (const Peak& peak : peaks_) {
        const double m = 12 * std::log2(peak.frequency / 440) + 69;
        const double phi = m - std::round(m);
        tuningReal_ += peak.weight * std::cos(2 * std::numbers::pi * phi);
        tuningImag_ += peak.weight * std::sin(2 * std::numbers::pi * phi);
    }
    const double delta = tuningOffsetSemitones();

    Chroma chroma{};
    Chroma mid{};
    int64_t bassPc = -1;
    double bestBass = 0;
    for (const Peak& peak : peaks_) {
        if (p_.harmonicWeights.empty() || peak.frequency < p_.minFrequency) continue;
        for (size_t h = 0; h < p_.harmonicWeights.size(); ++h) {
            const double f0 = peak.frequency / (h + 1);
            if (f0 < p_.minFrequency) break;
            const double m = 12 * std::log2(f0 / 440) + 69 - delta;
            const double r = std::round(m);
            const double dev = std::fabs(m - r);
            if (!(dev < p_.semitoneTolerance)) continue;
            const size_t pc = pitchClass(r);
            const double c = peak.weight * p_.harmonicWeights[h] * (1 - dev / p_.semitoneTolerance);
            const bool bass = h == 0 && peak.frequency < p_.bassMaxHz;
            chroma[pc] += c * (bass ? p_.bassBoost : 1.0);
            if (f0 >= p_.midMinHz) mid[pc] += c;
            if (bass && peak.weight > bestBass) {
                bestBass = peak.weight;
                bassPc = int64_t(pc);
            }
        }
    }

    double total = 0;
    for (double v : chroma) total += v;
    if (!(total > 0)) return;
    switch (p_.frameWeighting) {
        case 1: {
            const double factor = std::sqrt(total) / total;
            for (double& v : chroma) v *= factor;
            break;
        }
        case 2:
            break;
        default:
            for (double& v : chroma) v /= total;
            break;
    }
    double midTotal = 0;
    for (double v : mid) midTotal += v;
    if (midTotal > 0)
        for (double& v : mid) v /= midTotal;

    frames_.push_back(chroma);
    bassFrames_.push_back(bassPc);
    midFrames_.push_back(mid);
    if (dumpFrames_) dumped_.push_back({samplesFed_ / sampleRate_, chroma, mid, bassPc});
    if (!offline_) {
        const size_t limit = maxFrames();
        frames_.keepLast(limit);
        bassFrames_.keepLast(limit);
        midFrames_.keepLast(limit);
    }
}

void KeyAnalyzer::restart(double keepingSeconds) {
    const size_t keep = std::min(frames_.size(), framesFor(keepingSeconds));
    frames_.keepLast(keep);
    bassFrames_.keepLast(keep);
    midFrames_.keepLast(keep);
    shownKey_.reset();
    candidateKey_.reset();
    tuningReal_ = 0;
    tuningImag_ = 0;
    recentWinners_.clear();
    shiftLowSince_ = -1;
    const double kept = sampleRate_ * keepingSeconds;
    restartedAt_ = samplesFed_ - (std::isfinite(kept) && kept > 0 ? static_cast<int64_t>(kept) : 0);
    restarts_ += 1;
}

void KeyAnalyzer::reset() {
    pending_.clear();
    frames_.clear();
    bassFrames_.clear();
    midFrames_.clear();
    silentSamples_ = 0;
    tuningReal_ = 0;
    tuningImag_ = 0;
    rms_ = 0;
    shownKey_.reset();
    candidateKey_.reset();
    recentWinners_.clear();
    shiftLowSince_ = -1;
    restartedAt_ = samplesFed_;
}

double KeyAnalyzer::correlation(std::span<const double> a, std::span<const double> b) {
    const size_t n = a.size();
    if (n == 0) return 0;
    double meanA = 0, meanB = 0;
    for (size_t i = 0; i < n; ++i) {
        meanA += a[i];
        meanB += b[i];
    }
    meanA /= static_cast<double>(n);
    meanB /= static_cast<double>(n);
    double covariance = 0, varianceA = 0, varianceB = 0;
    for (size_t i = 0; i < n; ++i) {
        const double da = a[i] - meanA;
        const double db = b[i] - meanB;
        covariance += da * db;
        varianceA += da * da;
        varianceB += db * db;
    }
    if (!(varianceA > 1e-12) || !(varianceB > 1e-12)) return 0;
    return covariance / std::sqrt(varianceA * varianceB);
}

KeyEstimate KeyAnalyzer::decide(double usingLastSeconds) const {
    const double frameRate = framesPerSecond();
    size_t n = frames_.size();
    if (std::isfinite(usingLastSeconds)) n = truncatedCount(frameRate * usingLastSeconds, size_t{1} << 40);
    n = std::max<size_t>(n, 1);

    const auto recent = frames_.last(n);
    if (recent.size() < 8) return KeyEstimate::unknown;
    Chroma sum{};
    for (const auto& frame : recent)
        for (size_t i = 0; i < 12; ++i) sum[i] += frame[i];
    const double top = *std::max_element(sum.begin(), sum.end());
    if (!(top > 0)) return KeyEstimate::unknown;

    // How often each pitch class was the bass note, relative to the most frequent one.
    Chroma bass{};
    for (int64_t b : bassFrames_.last(n))
        if (b >= 0) bass[static_cast<size_t>(b)] += 1;
    const double mostBass = *std::max_element(bass.begin(), bass.end());
    if (mostBass > 0)
        for (double& v : bass) v /= mostBass;

    const Ranking ranked = rank(sum, bass, chords_.scores(midFrames_.last(n), frameRate, p_));
    if (p_.onDebug) {
        std::string text = "  chroma: ";
        for (size_t i = 0; i < 12; ++i) text += format("%s=%.2f ", asciiNoteNames[i], sum[i] / top);
        text += "\n  keys:   ";
        for (size_t i = 0; i < 5; ++i)
            text += format("%s=%.3f  ", ranked[i].key.shortName(), ranked[i].score);
        text += "\n";
        p_.onDebug(text);
    }
    if (!(ranked[0].score > 0)) return KeyEstimate::unknown;
    KeyEstimate result = verdict(ranked);
    for (size_t i = 0; i < 12; ++i) result.chroma[i] = sum[i] / top;
    return result;
}

// Every key scored by how its rotated profile correlates with the chroma, plus bass-note and chord
// evidence for its tonic; best first, ties in the order of all keys.
KeyAnalyzer::Ranking KeyAnalyzer::rank(const Chroma& sum, const Chroma& bass,
                                       const std::array<double, 24>& chords) const {
    const auto [majorProfile, minorProfile] = KeyProfile::tables(p_.profile);
    Ranking ranked;
    const auto& keys = MusicalKey::all();
    for (size_t k = 0; k < keys.size(); ++k) {
        const MusicalKey key = keys[k];
        const auto& profile = key.isMinor ? *minorProfile : *majorProfile;
        const auto tonic = static_cast<size_t>(key.tonic);
        Chroma rotated{};
        for (size_t i = 0; i < 12; ++i) rotated[(i + tonic) % 12] = profile[i];
        ranked[k] = {key, correlation(sum, rotated) + p_.bassTonicWeight * bass[tonic] +
                              p_.chordWeight * chords[tonic + (key.isMinor ? 12 : 0)]};
    }
    // Insertion sort: stable and, unlike std::stable_sort, never allocates.
    for (size_t i = 1; i < ranked.size(); ++i) {
        const Ranked c = ranked[i];
        size_t j = i;
        while (j > 0 && ranked[j - 1].score < c.score) {
            ranked[j] = ranked[j - 1];
            --j;
        }
        ranked[j] = c;
    }
    return ranked;
}

// The winner, a confidence from its score and its lead, and the alternative: a close second, else a
// relative key not far behind.
KeyEstimate KeyAnalyzer::verdict(const Ranking& ranked) const {
    const double s1 = ranked[0].score;
    const double s2 = ranked[1].score;
    const double margin = std::max(s1 - s2, 0.0);
    const double separation = std::min(4 * margin / std::max(std::fabs(s1), 0.05), 1.0);
    const double level = std::clamp(2 * (s1 - 0.3), 0.0, 1.0);

    KeyEstimate result;
    result.key = ranked[0].key;
    result.confidence = std::clamp(level * (0.45 + 0.55 * separation), 0.0, 1.0);
    if ((s1 - s2) / s1 < 0.06) {
        result.alternative = ranked[1].key;
    } else {
        for (const Ranked& r : std::span(ranked).subspan(1)) {
            if (r.key.isRelativeOf(ranked[0].key)) {
                if ((s1 - r.score) / s1 < p_.relativeGap) result.alternative = r.key;
                break;
            }
        }
    }
    result.tuningCents = tuningOffsetSemitones() * 100;
    return result;
}

void KeyAnalyzer::detectSongChange() {
    const double frameRate = framesPerSecond();
    const size_t shortSpan = truncatedCount(p_.shiftShortSeconds * frameRate, size_t{1} << 40);
    const size_t base = truncatedCount(8 * frameRate, size_t{1} << 40);
    if (frames_.size() >= shortSpan + base) {
        const auto all = frames_.view();
        const size_t split = all.size() - shortSpan;
        Chroma recent{}, older{};
        for (size_t f = 0; f < all.size(); ++f) {
            auto& target = f < split ? older : recent;
            for (size_t i = 0; i < 12; ++i) target[i] += all[f][i];
        }
        if (correlation(recent, older) < p_.shiftThreshold) {
            if (shiftLowSince_ < 0) shiftLowSince_ = samplesFed_;
            if (static_cast<double>(samplesFed_ - shiftLowSince_) >= p_.shiftHoldSeconds * sampleRate_)
                restart(p_.shiftShortSeconds);
            return;
        }
    }
    shiftLowSince_ = -1;
}

KeyEstimate KeyAnalyzer::estimate() {
    if (!(rms_ > p_.silenceFloor)) return KeyEstimate::unknown;
    const double frameRate = framesPerSecond();
    if (!offline_) detectSongChange();
    if (static_cast<double>(frames_.size()) < p_.minimumSeconds * frameRate) return KeyEstimate::unknown;

    const KeyEstimate d = decide(p_.historySeconds);
    const double ramp = std::min(
        static_cast<double>(samplesFed_ - restartedAt_) / sampleRate_ / p_.confidenceRampSeconds, 1.0);
    const double confidence = ramp * d.confidence;
    if (!d.key) {
        KeyEstimate result = d;
        result.confidence = confidence;
        return result;
    }

    const MusicalKey k = *d.key;
    recentWinners_.push_back({samplesFed_, k});
    const int64_t oldest = samplesFed_ - static_cast<int64_t>(p_.agreementSeconds * sampleRate_);
    while (!recentWinners_.empty() && recentWinners_[0].at < oldest) recentWinners_.dropFront(1);

    if (!shownKey_) {
        shownKey_ = k;
    } else if (k == *shownKey_) {
        candidateKey_.reset();
    } else if (candidateKey_ && k == *candidateKey_) {
        const double hold =
            k.isRelativeOf(*shownKey_) ? p_.relativeSwitchAfterSeconds : p_.switchAfterSeconds;
        if (static_cast<double>(samplesFed_ - candidateSince_) >= hold * sampleRate_) {
            shownKey_ = k;
            candidateKey_.reset();
        }
    } else {
        candidateKey_ = k;
        candidateSince_ = samplesFed_;
    }

    KeyEstimate result = d;
    if (!(*shownKey_ == k)) {
        result.key = shownKey_;
        result.alternative = k;
        result.confidence = confidence * 0.6;
        return result;
    }
    size_t agreeing = 0;
    for (const auto& winner : recentWinners_.view()) agreeing += winner.key == k ? 1 : 0;
    const double agreement = static_cast<double>(agreeing) / static_cast<double>(recentWinners_.size());
    result.confidence = confidence * (0.5 + 0.5 * agreement);
    return result;
}

}  // namespace velquin
