#include "capture/PulseConnection.h"

#include <algorithm>
#include <cmath>

#include <sys/time.h>

#include <charconv>
#include <cstring>
#include <utility>

namespace velquin::pulse {

namespace {

void signalLoop(pa_threaded_mainloop* loop) {
    pa_threaded_mainloop_signal(loop, 0);
}

void contextStateSignal(pa_context*, void* userdata) {
    signalLoop(static_cast<pa_threaded_mainloop*>(userdata));
}

}  // namespace

void MainloopDeleter::operator()(pa_threaded_mainloop* loop) const {
    pa_threaded_mainloop_stop(loop);
    pa_threaded_mainloop_free(loop);
}

void ContextDeleter::operator()(pa_context* context) const {
    pa_context_set_state_callback(context, nullptr, nullptr);
    pa_context_set_subscribe_callback(context, nullptr, nullptr);
    pa_context_disconnect(context);
    pa_context_unref(context);
}

void StreamDeleter::operator()(pa_stream* stream) const {
    pa_stream_set_state_callback(stream, nullptr, nullptr);
    pa_stream_set_read_callback(stream, nullptr, nullptr);
    if (PA_STREAM_IS_GOOD(pa_stream_get_state(stream))) pa_stream_disconnect(stream);
    pa_stream_unref(stream);
}

Timer::Timer(pa_threaded_mainloop* loop, std::function<void()> fire)
    : api_(pa_threaded_mainloop_get_api(loop)), fire_(std::move(fire)) {}

Timer::~Timer() {
    if (event_) api_->time_free(event_);
}

void Timer::arm(std::chrono::milliseconds after) {
    timeval when{};
    gettimeofday(&when, nullptr);
    pa_timeval_add(&when, static_cast<pa_usec_t>(after.count()) * PA_USEC_PER_MSEC);
    if (event_)
        api_->time_restart(event_, &when);
    else
        event_ = api_->time_new(api_, &when, trampoline, this);
}

void Timer::disarm() {
    if (event_) api_->time_restart(event_, nullptr);
}

void Timer::trampoline(pa_mainloop_api*, pa_time_event* event, const struct timeval*, void* userdata) {
    auto* timer = static_cast<Timer*>(userdata);
    timer->api_->time_restart(event, nullptr);  // one shot until armed again
    timer->fire_();
}

MainloopPtr startMainloop(const char* threadName) {
    MainloopPtr loop(pa_threaded_mainloop_new());
    if (!loop) return nullptr;
    pa_threaded_mainloop_set_name(loop.get(), threadName);
    if (pa_threaded_mainloop_start(loop.get()) < 0) {
        pa_threaded_mainloop_free(loop.release());  // never started: nothing to stop
        return nullptr;
    }
    return loop;
}

ContextPtr newContext(pa_threaded_mainloop* loop) {
    pa_proplist* props = pa_proplist_new();
    pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, "Velquin");
    pa_proplist_sets(props, PA_PROP_APPLICATION_ID, "com.orvane.velquin");
    ContextPtr context(pa_context_new_with_proplist(pa_threaded_mainloop_get_api(loop), "Velquin", props));
    pa_proplist_free(props);
    return context;
}

bool waitUntil(pa_threaded_mainloop* loop, std::chrono::milliseconds timeout,
               const std::function<bool()>& done) {
    if (done()) return true;
    bool expired = false;
    Timer timer(loop, [&] {
        expired = true;
        signalLoop(loop);
    });
    timer.arm(timeout);
    while (!done()) {
        if (expired) return false;
        pa_threaded_mainloop_wait(loop);
    }
    return true;
}

int connect(pa_threaded_mainloop* loop, pa_context* context, std::chrono::milliseconds timeout) {
    pa_context_set_state_callback(context, contextStateSignal, loop);
    // No autospawn: a capture source must never start a sound server behind the user's back.
    if (pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
        return lastError(context, PA_ERR_CONNECTIONREFUSED);
    const bool settled = waitUntil(loop, timeout, [&] {
        const pa_context_state_t state = pa_context_get_state(context);
        return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
    });
    if (!settled) return PA_ERR_TIMEOUT;
    if (pa_context_get_state(context) != PA_CONTEXT_READY)
        return lastError(context, PA_ERR_CONNECTIONREFUSED);
    return 0;
}

StreamPtr newRecordStream(pa_context* context, const char* name, const DeviceInfo& device) {
    const pa_sample_spec spec{PA_SAMPLE_FLOAT32NE, device.spec.rate, device.spec.channels};
    const bool mapFits = pa_channel_map_valid(&device.map) && device.map.channels == spec.channels;
    return StreamPtr(pa_stream_new(context, name, &spec, mapFits ? &device.map : nullptr));
}

int startRecording(pa_stream* stream, const char* device, uint32_t fragmentFrames) {
    pa_buffer_attr attr;
    attr.maxlength = attr.tlength = attr.prebuf = attr.minreq = static_cast<uint32_t>(-1);
    attr.fragsize = fragmentFrames * static_cast<uint32_t>(pa_frame_size(pa_stream_get_sample_spec(stream)));
    if (pa_stream_connect_record(stream, device, &attr, PA_STREAM_ADJUST_LATENCY) < 0)
        return lastError(pa_stream_get_context(stream));
    return 0;
}

int lastError(pa_context* context, int fallback) {
    const int error = context ? pa_context_errno(context) : 0;
    return error != 0 ? error : fallback;
}

void mixInterleavedToMono(const float* interleaved, size_t frames, unsigned channels, float* mono) {
    if (channels == 1) {
        std::memcpy(mono, interleaved, frames * sizeof(float));
        return;
    }
    const float scale = 1.0f / static_cast<float>(channels);
    for (size_t i = 0; i < frames; ++i) {
        const float* frame = interleaved + i * channels;
        float sum = 0.0f;
        for (unsigned c = 0; c < channels; ++c) sum += frame[c];
        mono[i] = sum * scale;
    }
}

void MonoMixer::reserve(size_t frames) {
    if (mono_.size() < frames) mono_.assign(frames, 0.0f);
}

void MonoMixer::mix(const float* interleaved, size_t frames, unsigned channels, const Deliver& deliver) {
    if (!interleaved || frames == 0 || channels == 0) return;
    reserve(frames);
    mixInterleavedToMono(interleaved, frames, channels, mono_.data());
    if (deliver) deliver(mono_.data(), static_cast<int64_t>(frames));
}

void MonoMixer::silence(size_t frames, const Deliver& deliver) {
    if (frames == 0) return;
    reserve(frames);
    std::fill_n(mono_.begin(), frames, 0.0f);
    if (deliver) deliver(mono_.data(), static_cast<int64_t>(frames));
}

namespace {
// Below about -80 dBFS: what a server feeds a stream it has lost track of is not music.
constexpr float audibleLevel = 1e-4f;
}  // namespace

bool MonoMixer::read(pa_stream* stream, unsigned channels, const Deliver& deliver) {
    if (channels == 0) return false;
    const size_t frameBytes = size_t(channels) * sizeof(float);
    bool sound = false;
    drain(stream, [&](const float* data, size_t bytes) {
        // A hole is time the server has no audio for: keep the sample count honest with silence.
        if (data) {
            const float* end = data + bytes / sizeof(float);
            sound =
                sound || std::find_if(data, end, [](float x) { return std::abs(x) > audibleLevel; }) != end;
            mix(data, bytes / frameBytes, channels, deliver);
        } else {
            silence(bytes / frameBytes, deliver);
        }
    });
    return sound;
}

std::string rateText(double rate) {
    char buffer[64];
    const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, rate);
    std::string text(buffer, ec == std::errc() ? end : buffer);
    if (text.find_first_of(".eEn") == std::string::npos) text += ".0";  // "n": inf and nan stay as they are
    return text;
}

}  // namespace velquin::pulse
