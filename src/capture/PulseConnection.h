#pragma once
// Shared PulseAudio plumbing for the capture back ends: RAII handles, a lock guard, timers and bounded
// waits on the threaded main loop, record streams, and the mono mix.
//
// Threading: every function here that takes a main loop must be called with that loop's lock held,
// from any thread except the loop's own (they wait on the loop). Callbacks run on the loop's thread
// with the lock held and must never block.

#include <pulse/pulseaudio.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace velquin::pulse {

// How long any single round trip to the server may take before we give up on it.
inline constexpr std::chrono::milliseconds requestTimeout{3000};

struct MainloopDeleter {
    void operator()(pa_threaded_mainloop* loop) const;  // stops the thread (lock NOT held), then frees
};
struct ContextDeleter {
    void operator()(pa_context* context) const;  // clears callbacks, disconnects, unrefs (lock held)
};
struct StreamDeleter {
    void operator()(pa_stream* stream) const;  // clears callbacks, disconnects, unrefs (lock held)
};
using MainloopPtr = std::unique_ptr<pa_threaded_mainloop, MainloopDeleter>;
using ContextPtr = std::unique_ptr<pa_context, ContextDeleter>;
using StreamPtr = std::unique_ptr<pa_stream, StreamDeleter>;

class Lock {
  public:
    explicit Lock(pa_threaded_mainloop* loop) : loop_(loop) { pa_threaded_mainloop_lock(loop_); }
    ~Lock() { pa_threaded_mainloop_unlock(loop_); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

  private:
    pa_threaded_mainloop* loop_;
};

// A one-shot or re-armable timer on the loop; `fire` runs on the loop's thread with the lock held.
// Create, arm and destroy it with the lock held.
class Timer {
  public:
    Timer(pa_threaded_mainloop* loop, std::function<void()> fire);
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;
    void arm(std::chrono::milliseconds after);
    void disarm();

  private:
    static void trampoline(pa_mainloop_api*, pa_time_event*, const struct timeval*, void* userdata);
    pa_mainloop_api* api_;
    pa_time_event* event_ = nullptr;
    std::function<void()> fire_;
};

// A new, started main loop whose thread carries `threadName`; null if PulseAudio cannot make one.
MainloopPtr startMainloop(const char* threadName);

// A new context named after the application; null on failure.
ContextPtr newContext(pa_threaded_mainloop* loop);

// Waits until `done()` holds or `timeout` passes; true if `done()` held. Whatever makes `done()`
// true must call pa_threaded_mainloop_signal.
bool waitUntil(pa_threaded_mainloop* loop, std::chrono::milliseconds timeout,
               const std::function<bool()>& done);

// Connects `context` (no autospawn) and waits for READY. Returns 0, or the PulseAudio error code
// (PA_ERR_TIMEOUT when the server did not answer in time). Replaces the context's state callback;
// the caller installs its own afterwards.
int connect(pa_threaded_mainloop* loop, pa_context* context,
            std::chrono::milliseconds timeout = requestTimeout);

struct DeviceInfo {
    std::string name;
    uint32_t index = PA_INVALID_INDEX;
    pa_sample_spec spec{};
    pa_channel_map map{};
    std::string monitorSourceName;  // sinks only
};

// A record stream of 32-bit float with the device's own rate, channel count and channel map, so the
// server neither resamples nor remixes. Null on failure (see lastError). Does not connect it.
StreamPtr newRecordStream(pa_context* context, const char* name, const DeviceInfo& device);
// Starts recording `device` in fragments of `fragmentFrames` frames. ADJUST_LATENCY makes the
// server honour the fragment size instead of filling seconds of buffer. Returns 0 or an error code.
int startRecording(pa_stream* stream, const char* device, uint32_t fragmentFrames);
// Reads everything the stream holds; `deliver(data, bytes)` gets null data for a hole.
// Runs on the loop's thread, inside the stream's read callback.
template <typename Deliver>
void drain(pa_stream* stream, Deliver&& deliver) {
    while (pa_stream_readable_size(stream) > 0) {
        const void* data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(stream, &data, &bytes) < 0 || bytes == 0) return;
        deliver(static_cast<const float*>(data), bytes);
        pa_stream_drop(stream);
    }
}

// The error code of the context's last failure, never 0 when `fallback` is given.
int lastError(pa_context* context, int fallback = PA_ERR_UNKNOWN);

// Averages interleaved frames into `mono[0 … frames−1]`: the channels of a frame are summed in order and
// scaled by the single-precision reciprocal of the channel count (one channel is copied as it is).
void mixInterleavedToMono(const float* interleaved, size_t frames, unsigned channels, float* mono);

// A source's reusable mix buffer between the stream and its onSamples: interleaved blocks become mono,
// holes become silence. It grows only when a block is larger than any before and never shrinks.
// Runs on the loop's thread.
class MonoMixer {
  public:
    using Deliver = std::function<void(const float* samples, int64_t count)>;

    void reserve(size_t frames);
    // Empty blocks, null data and zero channels are skipped.
    void mix(const float* interleaved, size_t frames, unsigned channels, const Deliver& deliver);
    void silence(size_t frames, const Deliver& deliver);
    // Everything the stream holds, frames of `channels` floats each; true when any sample was audible.
    bool read(pa_stream* stream, unsigned channels, const Deliver& deliver);

  private:
    std::vector<float> mono_;
};

// Shortest decimal text of a rate, always with a fraction ("48000.0").
std::string rateText(double rate);

}  // namespace velquin::pulse
