#pragma once
// Hand-over between a capture thread (one writer) and the analysis thread (one reader). Bounded: when
// the reader falls behind, the oldest unread samples are overwritten.

#include <cstdint>
#include <mutex>
#include <vector>

namespace velquin {

class SampleRing {
  public:
    explicit SampleRing(int64_t capacity);

    // Real-time safe: no allocation, the lock is held for at most two block copies.
    void write(const float* samples, int64_t count);
    // Every unread sample, oldest first, into `out` (replacing its contents). Allocates only when `out`
    // has less room than the unread samples, so a buffer reserved to the capacity never allocates.
    void drainInto(std::vector<float>& out);

    // Empties the ring and gives it a new capacity, as a fresh ring would be. Allocates: never call it
    // from the capture thread (the writer only waits for the swap).
    void replace(int64_t capacity);

    int64_t capacity() const;

  private:
    std::vector<float> buffer_;
    int64_t writeIndex_ = 0;
    int64_t available_ = 0;
    mutable std::mutex lock_;
};

}  // namespace velquin
