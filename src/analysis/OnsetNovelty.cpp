#include "analysis/OnsetNovelty.h"

#include <algorithm>
#include <cmath>

#include "analysis/Log1p.h"

namespace velquin {

namespace {

constexpr uint16_t noBand = 0xFFFF;

size_t hopFor(double sampleRate) {
    return static_cast<size_t>(std::max(std::lround(sampleRate / 100.0), 16L));
}

// About 46 ms: two periods of a 43 Hz kick, and short enough to keep 16th notes at 200 BPM apart.
size_t fftSizeFor(double sampleRate) {
    size_t size = 256;
    while (static_cast<double>(size) < 0.04 * sampleRate) size *= 2;
    return size;
}

}  // namespace

OnsetNovelty::OnsetNovelty(double sampleRate, Parameters parameters)
    : p_(parameters),
      sampleRate_(sampleRate),
      hop_(hopFor(sampleRate)),
      fftSize_(fftSizeFor(sampleRate)),
      fft_(static_cast<int64_t>(fftSize_)) {
    const size_t bins = fftSize_ / 2;
    const double binHz = sampleRate / static_cast<double>(fftSize_);
    bandOf_.assign(bins, noBand);
    // Bands that no bin falls in (the lowest ones, narrower than a bin) are skipped, so band numbers
    // stay dense.
    int previousRaw = -1;
    int band = -1;
    firstBin_ = bins;
    for (size_t k = 1; k < bins; ++k) {
        const double hz = static_cast<double>(k) * binHz;
        if (hz < p_.lowHz || hz > p_.highHz) continue;
        const int raw = static_cast<int>(std::floor(p_.bandsPerOctave * std::log2(hz / p_.lowHz)));
        if (raw != previousRaw) {
            ++band;
            previousRaw = raw;
            registerOf_.push_back(hz < p_.lowMidHz ? low : hz < p_.midHighHz ? mid : high);
        }
        bandOf_[k] = static_cast<uint16_t>(band);
        firstBin_ = std::min(firstBin_, k);
        lastBin_ = k + 1;
    }
    const auto bandCount = static_cast<size_t>(band + 1);
    mag_.assign(std::max(lastBin_, size_t{1}), 0.0f);
    bands_.assign(bandCount, 0.0f);
    previous_.assign(bandCount, 0.0f);
    pending_.reserve(4 * fftSize_ + 16384);
    keptFrames_ = static_cast<size_t>(std::max(p_.keptSeconds * framesPerSecond(), 1.0));
    for (auto& curve : curves_) curve.reserve(2 * keptFrames_);
}

void OnsetNovelty::append(std::span<const float> samples) {
    for (float s : samples) energy_ += static_cast<double>(s) * s;
    samplesSeen_ += static_cast<int64_t>(samples.size());
    pending_.insert(pending_.end(), samples.begin(), samples.end());
    size_t offset = 0;
    while (pending_.size() - offset >= fftSize_) {
        frame(std::span<const float>(pending_).subspan(offset, fftSize_));
        offset += hop_;
    }
    if (offset > 0) pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(offset));
}

void OnsetNovelty::frame(std::span<const float> samples) {
    fft_.magnitudes(samples, mag_);
    std::fill(bands_.begin(), bands_.end(), 0.0f);
    for (size_t k = firstBin_; k < lastBin_; ++k)
        if (bandOf_[k] != noBand) bands_[bandOf_[k]] += mag_[k];
    const auto gamma = static_cast<float>(p_.compression);
    for (float& band : bands_) band *= gamma;
    log1pInPlace(bands_);
    float flux[registers] = {0, 0, 0};
    for (size_t b = 0; b < bands_.size(); ++b) {
        const float level = bands_[b];
        if (havePrevious_) flux[registerOf_[b]] += std::max(0.0f, level - previous_[b]);
        previous_[b] = level;
    }
    havePrevious_ = true;
    ++framesSeen_;
    // Kept values live in [curveStart_, end); the buffer is compacted when it is full, so appending
    // never reallocates.
    if (curves_[0].size() == curves_[0].capacity()) {
        for (auto& curve : curves_)
            curve.erase(curve.begin(),
                        curve.begin() + static_cast<std::ptrdiff_t>(curve.size() - keptFrames_));
        curveStart_ = 0;
    }
    for (size_t r = 0; r < registers; ++r) curves_[r].push_back(flux[r]);
    if (curves_[0].size() - curveStart_ > keptFrames_) ++curveStart_;
}

std::span<const float> OnsetNovelty::curve(Register r) const {
    return std::span<const float>(curves_[r]).subspan(curveStart_);
}

}  // namespace velquin
