#include "PulseConnection.h"

#include <algorithm>

#include <sys/time.h>

#include <charconv>
#include <cstring>
#include <type_traits>
#include <utility>

namespace velquin::pulse {

namespace {

void signalLoop(pa_threaded_mainloop* loop) {
    pa_threaded_mainloop_signal(loop, 0);
}

void contextStateSignal(pa_context*, void* userdata) {
    signalLoop(static_cast<pa_threaded_mainloop*>(userdata));
}
void streamStateSignal(pa_stream*, void* userdata) {
    signalLoop(static_cast<pa_threaded_mainloop*>(userdata));
}
void operationStateSignal(pa_operation*, void* userdata) {
    signalLoop(static_cast<pa_threaded_mainloop*>(userdata));
}

// Waits for `op` to finish (its callback sets `done`), for the context to drop it, or for the timeout.
// A null `op` means the context refused the request (it is not READY): never unref it.
int runOperation(pa_threaded_mainloop* loop, pa_context* context, pa_operation* raw, const bool& done,
                 const int& error) {
    if (!raw) return lastError(context);
    OperationPtr op(raw);
    pa_operation_set_state_callback(op.get(), operationStateSignal, loop);
    const bool finished = waitUntil(loop, kRequestTimeout, [&] {
        return done || pa_operation_get_state(op.get()) != PA_OPERATION_RUNNING;
    });
    pa_operation_set_state_callback(op.get(), nullptr, nullptr);
    if (!finished) {
        // Cancelling drops the callback, whose userdata lives on our stack.
        pa_operation_cancel(op.get());
        return PA_ERR_TIMEOUT;
    }
    if (!done) return lastError(context, PA_ERR_CONNECTIONTERMINATED);
    return error;
}

struct ServerQuery {
    pa_threaded_mainloop* loop;
    ServerInfo* out;
    bool done = false;
    int error = 0;
};

void serverInfoCallback(pa_context*, const pa_server_info* info, void* userdata) {
    auto* q = static_cast<ServerQuery*>(userdata);
    if (info) {
        q->out->defaultSinkName = info->default_sink_name ? info->default_sink_name : "";
        q->out->defaultSourceName = info->default_source_name ? info->default_source_name : "";
    } else {
        q->error = PA_ERR_UNKNOWN;
    }
    q->done = true;
    signalLoop(q->loop);
}

struct DeviceQuery {
    pa_threaded_mainloop* loop;
    DeviceInfo* out;
    bool found = false;
    bool done = false;
    int error = 0;
};

template <typename Info>
void fillDevice(DeviceQuery& q, const Info* info, int eol, pa_context* context) {
    if (eol < 0) {
        q.error = lastError(context);
    } else if (eol > 0) {
        if (!q.found && q.error == 0) q.error = PA_ERR_NOENTITY;
    } else if (info) {
        q.found = true;
        q.out->name = info->name ? info->name : "";
        q.out->index = info->index;
        q.out->spec = info->sample_spec;
        q.out->map = info->channel_map;
        if constexpr (std::is_same_v<Info, pa_sink_info>) {
            q.out->monitorSourceName = info->monitor_source_name ? info->monitor_source_name : "";
            q.out->monitorSourceIndex = info->monitor_source;
        }
        return;  // the end-of-list call follows
    }
    q.done = true;
    signalLoop(q.loop);
}

void sinkInfoCallback(pa_context* c, const pa_sink_info* info, int eol, void* userdata) {
    fillDevice(*static_cast<DeviceQuery*>(userdata), info, eol, c);
}

void sourceInfoCallback(pa_context* c, const pa_source_info* info, int eol, void* userdata) {
    fillDevice(*static_cast<DeviceQuery*>(userdata), info, eol, c);
}

struct SuccessQuery {
    pa_threaded_mainloop* loop;
    bool done = false;
    int error = 0;
};

void successCallback(pa_context* c, int success, void* userdata) {
    auto* q = static_cast<SuccessQuery*>(userdata);
    if (!success) q->error = lastError(c);
    q->done = true;
    signalLoop(q->loop);
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

int queryServerInfo(pa_threaded_mainloop* loop, pa_context* context, ServerInfo& out) {
    ServerQuery q{loop, &out};
    return runOperation(loop, context, pa_context_get_server_info(context, serverInfoCallback, &q), q.done,
                        q.error);
}

int querySinkInfo(pa_threaded_mainloop* loop, pa_context* context, const std::string& name, DeviceInfo& out) {
    DeviceQuery q{loop, &out};
    pa_operation* op = pa_context_get_sink_info_by_name(context, name.c_str(), sinkInfoCallback, &q);
    return runOperation(loop, context, op, q.done, q.error);
}

int querySourceInfo(pa_threaded_mainloop* loop, pa_context* context, const std::string& name,
                    DeviceInfo& out) {
    DeviceQuery q{loop, &out};
    pa_operation* op = pa_context_get_source_info_by_name(context, name.c_str(), sourceInfoCallback, &q);
    return runOperation(loop, context, op, q.done, q.error);
}

int subscribe(pa_threaded_mainloop* loop, pa_context* context, pa_subscription_mask_t mask) {
    SuccessQuery q{loop};
    return runOperation(loop, context, pa_context_subscribe(context, mask, successCallback, &q), q.done,
                        q.error);
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

int connectRecord(pa_threaded_mainloop* loop, pa_context* context, pa_stream* stream, const char* device,
                  uint32_t fragmentFrames) {
    pa_stream_set_state_callback(stream, streamStateSignal, loop);
    if (const int error = startRecording(stream, device, fragmentFrames)) return error;
    const bool settled = waitUntil(loop, kRequestTimeout, [&] {
        const pa_stream_state_t state = pa_stream_get_state(stream);
        return state == PA_STREAM_READY || !PA_STREAM_IS_GOOD(state);
    });
    if (!settled) return PA_ERR_TIMEOUT;
    if (pa_stream_get_state(stream) != PA_STREAM_READY) return lastError(context);
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

void MonoMixer::read(pa_stream* stream, unsigned channels, const Deliver& deliver) {
    if (channels == 0) return;
    const size_t frameBytes = size_t(channels) * sizeof(float);
    drain(stream, [&](const float* data, size_t bytes) {
        // A hole is time the server has no audio for: keep the sample count honest with silence.
        if (data)
            mix(data, bytes / frameBytes, channels, deliver);
        else
            silence(bytes / frameBytes, deliver);
    });
}

std::string rateText(double rate) {
    char buffer[64];
    const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, rate);
    std::string text(buffer, ec == std::errc() ? end : buffer);
    if (text.find_first_of(".eEn") == std::string::npos) text += ".0";  // "n": inf and nan stay as they are
    return text;
}

}  // namespace velquin::pulse
