#pragma once
// Windowed real-FFT magnitudes: out[k] = 2·|X[k]| / N for k = 0 … N/2−1, with X the DFT of the frame
// times a normalised periodic Hann window (mean square 1). The Nyquist term is dropped.
//
// One instance per analyzer: the scratch buffers make it reentrant but not thread-safe.
// `magnitudes` allocates nothing, locks nothing and may run on any one thread at a time.

#include <cstdint>
#include <memory>
#include <span>

namespace velquin {

class FFTMagnitude {
  public:
    // `size` must be a power of two ≥ 2 (else std::invalid_argument); throws std::runtime_error when FFTW
    // cannot plan it.
    explicit FFTMagnitude(int64_t size);
    ~FFTMagnitude();
    FFTMagnitude(const FFTMagnitude&) = delete;
    FFTMagnitude& operator=(const FFTMagnitude&) = delete;

    // Reads the first `size()` samples of `frame` and writes the lowest `out.size()` bins (at most
    // `binCount()`): callers that look at low frequencies only skip the square roots of the rest.
    void magnitudes(std::span<const float> frame, std::span<float> out);

    int64_t size() const { return size_; }
    int64_t binCount() const { return binCount_; }

  private:
    struct FreeDeleter {
        void operator()(void* p) const;
    };
    struct Plan;

    int64_t size_;
    int64_t binCount_;
    std::unique_ptr<Plan> plan_;
    std::unique_ptr<float[], FreeDeleter> window_;
    std::unique_ptr<float[], FreeDeleter> windowed_;
    std::unique_ptr<float[], FreeDeleter> spectrum_;  // interleaved re/im, binCount + 1 complex values
    float scale_;
};

}  // namespace velquin
