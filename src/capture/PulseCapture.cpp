#include "capture/PulseCapture.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace velquin::pulse {

namespace {

using namespace std::chrono_literals;

// A server that went away is usually back within a second (a restart, a crash and its restart): look
// often, so that capture resumes well within half a second of its return. A refused connection is cheap.
constexpr auto reconnectInterval = 200ms;
// A route that failed while the server runs (the device vanished between two questions) is tried
// again after these, doubling up to the last, so that a missed event costs less than half a second;
// events usually come first.
constexpr auto firstRetry = 100ms;
constexpr auto lastRetry = 400ms;
constexpr uint32_t fragmentMilliseconds = 20;
// After its device changed (a suspend and resume, a new profile), a stream that carried sound and then
// stays inaudible this long is replaced: some servers never feed it again, though a new stream hears the
// device at once. Replacements back off (1, 2, 4 … s) for as long as the watch lasts.
constexpr auto quietBeforeRenewal = 1000ms;
constexpr auto watchAfterChange = 30000ms;
constexpr auto recentSound = 2000ms;

constexpr auto subscriptions = static_cast<pa_subscription_mask_t>(
    PA_SUBSCRIPTION_MASK_SERVER | PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SOURCE);

bool fired(pa_operation* op) {
    if (!op) return false;  // null when the context is no longer READY
    pa_operation_unref(op);
    return true;
}

template <typename Info>
void fill(DeviceInfo& out, const Info& info) {
    out.name = info.name ? info.name : "";
    out.index = info.index;
    out.spec = info.sample_spec;
    out.map = info.channel_map;
}

}  // namespace

Capture::Capture(AudioSource& owner, Settings settings) : owner_(owner), settings_(settings) {}

Capture::~Capture() {
    stop();
}

int Capture::start() {
    stop();
    lost_ = routing_ = again_ = settled_ = false;
    route_.reset();
    recorded_ = {};
    rerouteDelay_ = 0ms;
    loop_ = startMainloop(settings_.threadName);
    if (!loop_) return PA_ERR_INTERNAL;
    int error = 0;
    {
        Lock lock(loop_.get());
        pa_threaded_mainloop* loop = loop_.get();
        reconnectTimer_.emplace(loop, [this] { reconnect(); });
        rerouteTimer_.emplace(loop, [this] { reroute(); });
        changeTimer_.emplace(loop, [this] { checkAfterChange(); });
        mixer_.reserve(settings_.reserveFrames);
        context_ = newContext(loop);
        error = context_ ? connect(loop, context_.get()) : PA_ERR_INTERNAL;
        if (error == 0) {
            watch(context_.get());
            reroute();
            // The owner sizes its analysis by the rate: wait for the stream, or for the news that
            // there is no device yet.
            waitUntil(loop, requestTimeout, [this] { return settled_; });
        }
    }
    if (error != 0) stop();
    return error;
}

void Capture::stop() {
    if (!loop_) return;
    // The loop cannot stop itself; a stop requested from a callback would deadlock or abort.
    if (pa_threaded_mainloop_in_thread(loop_.get())) return;
    {
        Lock lock(loop_.get());
        reconnectTimer_.reset();
        rerouteTimer_.reset();
        changeTimer_.reset();
        stream_.reset();
        context_.reset();
    }
    loop_.reset();
}

Capture::Recording Capture::recording() {
    Recording r;
    if (!loop_) return r;
    Lock lock(loop_.get());
    if (stream_) r.stream = *pa_stream_get_sample_spec(stream_.get());
    r.device = recorded_.spec;
    r.sinkRate = settings_.records == Records::defaultSink ? sink_.spec.rate : 0;
    r.capturing = route_ == Route::capturing;
    return r;
}

void Capture::watch(pa_context* context) {
    pa_context_set_state_callback(context, contextStateCallback, this);
    pa_context_set_subscribe_callback(context, subscribeCallback, this);
    // A refused subscription only means that changes are not followed.
    fired(pa_context_subscribe(context, subscriptions, nullptr, nullptr));
}

bool Capture::usable(const char* name) const {
    // Without a real output the server offers a dummy one ("auto_null"); there is nothing to hear there.
    return name && *name && std::strncmp(name, "auto_null", 9) != 0;
}

// Asks the server for its default device; the answers run the chain below, one question at a time.
void Capture::reroute() {
    if (!context_ || pa_context_get_state(context_.get()) != PA_CONTEXT_READY) return;
    // A stream still being created cannot be disconnected (the server has not named it yet): it would
    // live on in the server. Its state callback routes again once it is ready or has failed.
    const bool creating = stream_ && pa_stream_get_state(stream_.get()) == PA_STREAM_CREATING;
    if (routing_ || creating) {
        again_ = true;
        return;
    }
    if (!fired(pa_context_get_server_info(context_.get(), serverInfoCallback, this))) return;
    routing_ = true;
    again_ = false;
}

void Capture::endRoute() {
    routing_ = false;
    if (again_) reroute();
}

void Capture::routeFailed() {
    waitForDevice();
    rerouteDelay_ = std::clamp(rerouteDelay_ * 2, std::chrono::milliseconds(firstRetry),
                               std::chrono::milliseconds(lastRetry));
    rerouteTimer_->arm(rerouteDelay_);
    endRoute();
}

void Capture::waitForDevice() {
    stream_.reset();
    recorded_ = {};
    report(Route::waitingForDevice);
}

void Capture::serverInfoCallback(pa_context* context, const pa_server_info* info, void* userdata) {
    auto* self = static_cast<Capture*>(userdata);
    if (!info) return self->routeFailed();
    const bool sink = self->settings_.records == Records::defaultSink;
    const char* name = sink ? info->default_sink_name : info->default_source_name;
    if (!self->usable(name)) {
        // Not yet: the server announces a new default when there is one.
        self->waitForDevice();
        return self->endRoute();
    }
    self->sink_ = {};
    self->found_ = {};
    const bool asked =
        sink ? fired(pa_context_get_sink_info_by_name(context, name, sinkInfoCallback, self))
             : fired(pa_context_get_source_info_by_name(context, name, sourceInfoCallback, self));
    if (!asked) self->routeFailed();
}

void Capture::sinkInfoCallback(pa_context* context, const pa_sink_info* info, int eol, void* userdata) {
    auto* self = static_cast<Capture*>(userdata);
    if (eol == 0 && info) {
        fill(self->sink_, *info);
        self->sink_.monitorSourceName = info->monitor_source_name ? info->monitor_source_name : "";
        return;  // the end-of-list call follows
    }
    // Gone between the two questions (eol < 0): the server's next event says where the default went.
    if (eol < 0 || self->sink_.monitorSourceName.empty()) return self->routeFailed();
    const char* monitor = self->sink_.monitorSourceName.c_str();
    if (!fired(pa_context_get_source_info_by_name(context, monitor, sourceInfoCallback, self)))
        self->routeFailed();
}

void Capture::sourceInfoCallback(pa_context*, const pa_source_info* info, int eol, void* userdata) {
    auto* self = static_cast<Capture*>(userdata);
    if (eol == 0 && info) {
        fill(self->found_, *info);
        return;
    }
    if (eol < 0 || self->found_.name.empty()) return self->routeFailed();
    self->record(self->found_);
}

void Capture::record(const DeviceInfo& device) {
    if (device.spec.rate == 0 || device.spec.channels == 0) {
        waitForDevice();
        return endRoute();
    }
    const bool unchanged = !renew_ && stream_ && PA_STREAM_IS_GOOD(pa_stream_get_state(stream_.get())) &&
                           device.name == recorded_.name &&
                           pa_sample_spec_equal(&device.spec, &recorded_.spec);
    if (unchanged) return endRoute();

    // A record stream stays on the device it was connected to, at the rate it was made with: a new
    // device, or a new rate, needs a new stream.
    stream_.reset();
    // A replacement for a stream gone quiet keeps the watch: one made while its device was suspended
    // may be as deaf.
    if (!renew_) {
        watchUntil_ = {};
        changeTimer_->disarm();
    }
    renew_ = false;
    recorded_ = device;
    stream_ = newRecordStream(context_.get(), settings_.streamName, device);
    if (!stream_) return routeFailed();
    const pa_sample_spec& spec = *pa_stream_get_sample_spec(stream_.get());
    channels_ = spec.channels;
    pa_stream_set_read_callback(stream_.get(), readCallback, this);
    pa_stream_set_state_callback(stream_.get(), streamStateCallback, this);
    const uint32_t fragment = settings_.fragmentFrames != 0
                                  ? settings_.fragmentFrames
                                  : std::max<uint32_t>(1, spec.rate * fragmentMilliseconds / 1000);
    if (startRecording(stream_.get(), device.name.c_str(), fragment) != 0) return routeFailed();

    const double rate = device.spec.rate;
    if (std::abs(rate - sampleRate()) > 0.5) {
        sampleRate_.store(rate, std::memory_order_relaxed);
        // Before start() has returned the owner reads the rate itself.
        if (settled_ && owner_.onSampleRateChange) owner_.onSampleRateChange(rate);
    }
    endRoute();
}

void Capture::report(Route route) {
    settled_ = true;
    pa_threaded_mainloop_signal(loop_.get(), 0);
    if (route_ == route) return;
    route_ = route;
    if (owner_.onRouteChange) owner_.onRouteChange(route);
}

void Capture::streamStateCallback(pa_stream* stream, void* userdata) {
    auto* self = static_cast<Capture*>(userdata);
    const pa_stream_state_t state = pa_stream_get_state(stream);
    if (state == PA_STREAM_READY) {
        self->rerouteDelay_ = 0ms;
        self->report(Route::capturing);
        if (self->again_) self->reroute();
        return;
    }
    if (PA_STREAM_IS_GOOD(state)) return;
    // The whole connection dropping fails the stream too; the context's callback handles that.
    if (pa_context_get_state(pa_stream_get_context(stream)) != PA_CONTEXT_READY) return;
    // Its device went away. The stream must not be freed inside its own callback: the timer's turn
    // finds the default again and replaces it.
    self->rerouteTimer_->arm(0ms);
}

void Capture::subscribeCallback(pa_context*, pa_subscription_event_type_t event, uint32_t index,
                                void* userdata) {
    auto* self = static_cast<Capture*>(userdata);
    const auto facility = event & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
    const auto type = event & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
    if (facility == PA_SUBSCRIPTION_EVENT_SERVER) {
        self->reroute();  // perhaps a new default
    } else if (type == PA_SUBSCRIPTION_EVENT_NEW) {
        if (self->route_ == Route::waitingForDevice) self->reroute();
    } else if (type == PA_SUBSCRIPTION_EVENT_CHANGE && facility == PA_SUBSCRIPTION_EVENT_SOURCE &&
               index == self->recorded_.index) {
        self->deviceChanged();
        self->reroute();  // perhaps a new rate
    } else if (type == PA_SUBSCRIPTION_EVENT_CHANGE && facility == PA_SUBSCRIPTION_EVENT_SINK &&
               self->settings_.records == Records::defaultSink && index == self->sink_.index) {
        self->deviceChanged();
    }
}

void Capture::deviceChanged() {
    const auto now = Clock::now();
    if (!stream_ || now - lastAudible_ > recentSound) return;  // nothing to lose
    if (now > watchUntil_) {
        renewalGap_ = quietBeforeRenewal;
        nextRenewal_ = now + quietBeforeRenewal;
    }
    watchUntil_ = now + watchAfterChange;
    changeTimer_->arm(quietBeforeRenewal);
}

void Capture::checkAfterChange() {
    const auto now = Clock::now();
    if (now > watchUntil_) return;
    if (now - lastAudible_ >= quietBeforeRenewal && now >= nextRenewal_) {
        nextRenewal_ = now + renewalGap_;
        renewalGap_ *= 2;
        renew_ = true;
        reroute();
    }
    changeTimer_->arm(quietBeforeRenewal);
}

void Capture::contextStateCallback(pa_context* context, void* userdata) {
    auto* self = static_cast<Capture*>(userdata);
    const pa_context_state_t state = pa_context_get_state(context);
    if (state == PA_CONTEXT_READY && self->lost_) {
        self->lost_ = false;
        self->watch(context);
        self->reroute();
    } else if (!PA_CONTEXT_IS_GOOD(state)) {
        self->connectionLost();
    }
}

void Capture::connectionLost() {
    // Its questions died with it, and a failed context cannot be reused; it must not be freed from
    // inside its own callback either: the reconnect timer replaces it.
    lost_ = true;
    routing_ = again_ = false;
    rerouteTimer_->disarm();
    recorded_ = {};
    report(Route::waitingForServer);
    reconnectTimer_->arm(reconnectInterval);
}

void Capture::reconnect() {
    stream_.reset();
    context_.reset();
    context_ = newContext(loop_.get());
    if (context_) {
        pa_context_set_state_callback(context_.get(), contextStateCallback, this);
        // No autospawn: a capture source must never start a sound server behind the user's back.
        if (pa_context_connect(context_.get(), nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0) return;
        context_.reset();
    }
    reconnectTimer_->arm(reconnectInterval);
}

void Capture::readCallback(pa_stream* stream, size_t, void* userdata) {
    auto* self = static_cast<Capture*>(userdata);
    if (self->mixer_.read(stream, self->channels_, self->owner_.onSamples)) self->lastAudible_ = Clock::now();
}

void CaptureSource::start() {
    if (const int error = capture_.start()) throw AudioSourceError::serverUnreachable(error, kind_);
}

}  // namespace velquin::pulse
