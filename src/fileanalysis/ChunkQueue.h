#pragma once
// A bounded hand-over of mono chunks from one producer to a fixed set of consumers, each of which sees
// every chunk in order. The slots are allocated once and reused; a slot is written again only after
// every consumer has released it. Waiting is on condition variables, never spinning.
//
// Thread-safe: one producer thread, one thread per consumer index.

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

namespace velquin {

class ChunkQueue {
  public:
    ChunkQueue(size_t slots, size_t chunkFrames, size_t consumers)
        : slots_(slots, std::vector<float>(chunkFrames)), sizes_(slots, 0), consumed_(consumers, 0) {}

    // Producer: room for the next chunk, after waiting for the slowest consumer; empty once closed.
    std::span<float> acquire() {
        std::unique_lock lock(mutex_);
        roomFreed_.wait(lock, [&] { return closed_ || produced_ - slowest() < slots_.size(); });
        if (closed_) return {};
        return slots_[produced_ % slots_.size()];
    }

    // Producer: publishes the first `frames` of the room acquired last.
    void publish(size_t frames) {
        {
            std::lock_guard lock(mutex_);
            sizes_[produced_ % slots_.size()] = frames;
            ++produced_;
        }
        chunkReady_.notify_all();
    }

    // Consumer: the next chunk in order, after waiting for it; empty at the end or once closed.
    std::span<const float> next(size_t consumer) {
        std::unique_lock lock(mutex_);
        chunkReady_.wait(lock, [&] { return closed_ || finished_ || consumed_[consumer] < produced_; });
        if (closed_ || consumed_[consumer] == produced_) return {};
        const size_t slot = consumed_[consumer] % slots_.size();
        return {slots_[slot].data(), sizes_[slot]};
    }

    // Consumer: done with the chunk `next` gave.
    void release(size_t consumer) {
        {
            std::lock_guard lock(mutex_);
            ++consumed_[consumer];
        }
        roomFreed_.notify_one();
    }

    // Producer: no more chunks; consumers finish what is queued.
    void finish() {
        {
            std::lock_guard lock(mutex_);
            finished_ = true;
        }
        chunkReady_.notify_all();
    }

    // Anyone: stop now; every wait returns empty.
    void close() {
        {
            std::lock_guard lock(mutex_);
            closed_ = true;
        }
        chunkReady_.notify_all();
        roomFreed_.notify_all();
    }

  private:
    uint64_t slowest() const {
        uint64_t least = produced_;
        for (uint64_t c : consumed_) least = std::min(least, c);
        return least;
    }

    std::mutex mutex_;
    std::condition_variable chunkReady_;
    std::condition_variable roomFreed_;
    std::vector<std::vector<float>> slots_;
    std::vector<size_t> sizes_;
    std::vector<uint64_t> consumed_;
    uint64_t produced_ = 0;
    bool finished_ = false;
    bool closed_ = false;
};

}  // namespace velquin
