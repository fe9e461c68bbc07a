#pragma once
// A growable sequence that is trimmed from the front in O(1): trimmed values are skipped and the
// live tail is moved down only when the storage runs out. With a bounded length this allocates
// nothing after the first fill.

#include <algorithm>
#include <cstddef>
#include <span>
#include <vector>

namespace velquin {

template <typename T>
class SlidingWindow {
  public:
    // Room for about `expected` live values before the first compaction.
    void reserve(size_t expected) { storage_.reserve(std::max<size_t>(2 * expected, 16)); }

    void push_back(const T& value) {
        if (storage_.size() == storage_.capacity() && head_ > 0) compact();
        storage_.push_back(value);
    }
    void dropFront(size_t count) {
        head_ += std::min(count, size());
        if (head_ == storage_.size()) clear();
    }
    void keepLast(size_t count) {
        if (size() > count) dropFront(size() - count);
    }
    void clear() {
        storage_.clear();
        head_ = 0;
    }

    size_t size() const { return storage_.size() - head_; }
    bool empty() const { return size() == 0; }
    const T& operator[](size_t i) const { return storage_[head_ + i]; }
    const T& back() const { return storage_.back(); }
    std::span<const T> view() const { return {storage_.data() + head_, size()}; }
    std::span<const T> last(size_t count) const {
        const size_t n = std::min(count, size());
        return {storage_.data() + storage_.size() - n, n};
    }

  private:
    void compact() {
        std::move(storage_.begin() + static_cast<std::ptrdiff_t>(head_), storage_.end(), storage_.begin());
        storage_.resize(storage_.size() - head_);
        head_ = 0;
    }

    std::vector<T> storage_;
    size_t head_ = 0;
};

}  // namespace velquin
