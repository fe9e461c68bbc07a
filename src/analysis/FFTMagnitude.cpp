#include "analysis/FFTMagnitude.h"

#include <fftw3.h>

#include <cassert>
#include <cmath>
#include <cstdlib>
#include <mutex>
#include <numbers>
#include <stdexcept>

namespace velquin {

namespace {

// FFTW's planner keeps global state; only plan execution is thread-safe.
std::mutex& plannerMutex() {
    static std::mutex m;
    return m;
}

template <typename T>
T* allocate(size_t count) {
    void* p = fftwf_malloc(sizeof(T) * count);
    if (p == nullptr) std::abort();
    return static_cast<T*>(p);
}

}  // namespace

struct FFTMagnitude::Plan {
    fftwf_plan plan = nullptr;
    ~Plan() {
        std::lock_guard lock(plannerMutex());
        fftwf_destroy_plan(plan);
    }
};

void FFTMagnitude::FreeDeleter::operator()(void* p) const {
    fftwf_free(p);
}

FFTMagnitude::FFTMagnitude(int64_t size) : size_(size), binCount_(size / 2) {
    if (size < 2 || (size & (size - 1)) != 0) throw std::invalid_argument("FFT size must be a power of two");
    window_.reset(allocate<float>(static_cast<size_t>(size_)));
    windowed_.reset(allocate<float>(static_cast<size_t>(size_)));
    spectrum_.reset(allocate<float>(2 * static_cast<size_t>(binCount_ + 1)));

    {
        std::lock_guard lock(plannerMutex());
        // ESTIMATE plans are chosen by rule, not by timing, so every run computes the same bits.
        fftwf_plan plan = fftwf_plan_dft_r2c_1d(static_cast<int>(size_), windowed_.get(),
                                                reinterpret_cast<fftwf_complex*>(spectrum_.get()),
                                                FFTW_ESTIMATE | FFTW_DESTROY_INPUT);
        if (plan == nullptr) throw std::runtime_error("could not create an FFT plan");
        plan_ = std::make_unique<Plan>();
        plan_->plan = plan;
    }

    // Periodic Hann window scaled so that its mean square is 1: the factor is √(2/3), kept at the
    // four-place value every published result was computed with.
    const double n = static_cast<double>(size_);
    for (int64_t i = 0; i < size_; ++i)
        window_[i] = static_cast<float>(
            0.8165 * (1.0 - std::cos(2.0 * std::numbers::pi * static_cast<double>(i) / n)));
    scale_ = static_cast<float>(1.0 / n);
}

FFTMagnitude::~FFTMagnitude() = default;

// The window and magnitude loops run twice as wide with AVX; every operation is the same IEEE one
// either way, so the results do not depend on which version the processor gets.
// GCC only: clang 14 leaves a member defined out of line without its dispatcher, so other files
// cannot link against it. Not in sanitized builds either: the dispatcher runs during relocation,
// before ThreadSanitizer's runtime is up, and its instrumentation crashes there.
#if defined(__x86_64__) && defined(__ELF__) && !defined(__clang__) && !defined(__SANITIZE_THREAD__) && \
    !defined(__SANITIZE_ADDRESS__)
#define VELQUIN_WIDE_VERSIONS __attribute__((target_clones("avx", "default")))
#else
#define VELQUIN_WIDE_VERSIONS
#endif

VELQUIN_WIDE_VERSIONS void FFTMagnitude::magnitudes(std::span<const float> frame, std::span<float> out) {
    assert(frame.size() >= static_cast<size_t>(size_) && out.size() <= static_cast<size_t>(binCount_));
    if (out.empty()) return;
    float* w = windowed_.get();
    const float* win = window_.get();
    for (int64_t i = 0; i < size_; ++i) w[i] = frame[static_cast<size_t>(i)] * win[i];

    fftwf_execute(plan_->plan);

    // The magnitudes are 2·|X|/N (one-sided amplitude); doubling is exact in binary floating point, so
    // it is applied to the real and imaginary parts before the 1/N scale.
    const float* s = spectrum_.get();
    const float dc = 2.0f * s[0];
    out[0] = std::sqrt(dc * dc) * scale_;
    for (size_t k = 1; k < out.size(); ++k) {
        const float re = 2.0f * s[2 * k];
        const float im = 2.0f * s[2 * k + 1];
        out[k] = std::sqrt(re * re + im * im) * scale_;
    }
}

}  // namespace velquin
