#include "capture/SampleRing.h"

#include <algorithm>
#include <cstring>

namespace velquin {

SampleRing::SampleRing(int64_t capacity)
    : buffer_(static_cast<size_t>(std::max<int64_t>(capacity, 0)), 0.0f) {}

void SampleRing::replace(int64_t capacity) {
    std::vector<float> fresh(static_cast<size_t>(std::max<int64_t>(capacity, 0)), 0.0f);
    std::lock_guard guard(lock_);
    buffer_.swap(fresh);
    writeIndex_ = 0;
    available_ = 0;
}

int64_t SampleRing::capacity() const {
    std::lock_guard guard(lock_);
    return static_cast<int64_t>(buffer_.size());
}

void SampleRing::write(const float* samples, int64_t count) {
    if (count < 1) return;
    std::lock_guard guard(lock_);
    const auto cap = static_cast<int64_t>(buffer_.size());
    if (cap < 1) return;
    const int64_t n = std::min(cap, count);
    samples += count - n;  // a batch longer than the ring keeps only its newest samples
    const int64_t first = std::min(cap - writeIndex_, n);
    std::memcpy(buffer_.data() + writeIndex_, samples, static_cast<size_t>(first) * sizeof(float));
    if (first < n)
        std::memcpy(buffer_.data(), samples + first, static_cast<size_t>(n - first) * sizeof(float));
    writeIndex_ = (writeIndex_ + n) % cap;
    available_ = std::min(available_ + n, cap);
}

void SampleRing::drainInto(std::vector<float>& out) {
    std::lock_guard guard(lock_);
    const int64_t n = available_;
    out.resize(static_cast<size_t>(std::max<int64_t>(n, 0)));
    if (n < 1) return;
    const auto cap = static_cast<int64_t>(buffer_.size());
    float* result = out.data();
    const int64_t start = (writeIndex_ - n + cap) % cap;
    const int64_t first = std::min(cap - start, n);
    std::memcpy(result, buffer_.data() + start, static_cast<size_t>(first) * sizeof(float));
    if (first < n)
        std::memcpy(result + first, buffer_.data(), static_cast<size_t>(n - first) * sizeof(float));
    available_ = 0;
}

}  // namespace velquin
