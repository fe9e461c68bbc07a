#include "SystemAudioSource.h"

#include "EngineSettings.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace velquin {

namespace {

// 20 ms fragments: a steady delivery cadence without keeping the whole sound system busy.
constexpr uint32_t kFragmentMilliseconds = 20;
// The largest block the server hands out in one piece (one 64 KiB memory block of floats), so that the
// mix buffer never has to grow while running.
constexpr size_t kInitialMixFrames = 16384;

constexpr auto kSubscriptions =
    static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SERVER | PA_SUBSCRIPTION_MASK_SOURCE);

void unrefIfAny(pa_operation* op) {
    if (op) pa_operation_unref(op);  // null when the context is no longer READY
}

}  // namespace

SystemAudioSource::SystemAudioSource() = default;

SystemAudioSource::~SystemAudioSource() {
    stop();
}

void SystemAudioSource::start() {
    stop();
    loop_ = pulse::startMainloop("velquin.monitor");
    if (!loop_) throw AudioSourceError::serverUnreachable(PA_ERR_INTERNAL);
    std::optional<AudioSourceError> failure;
    {
        pulse::Lock lock(loop_.get());
        failure = startLocked();
    }
    if (failure) {
        stop();
        throw *failure;
    }
}

std::optional<AudioSourceError> SystemAudioSource::startLocked() {
    pa_threaded_mainloop* loop = loop_.get();

    context_ = pulse::newContext(loop);
    if (!context_) return AudioSourceError::serverUnreachable(PA_ERR_INTERNAL);
    if (const int error = pulse::connect(loop, context_.get()))
        return AudioSourceError::serverUnreachable(error);
    pa_context* context = context_.get();

    pulse::ServerInfo server;
    if (const int error = pulse::queryServerInfo(loop, context, server))
        return AudioSourceError::monitorFormatUnavailable(error);
    if (server.defaultSinkName.empty()) return AudioSourceError::noOutputDevice();
    pulse::DeviceInfo sink;
    if (const int error = pulse::querySinkInfo(loop, context, server.defaultSinkName, sink)) {
        if (error == PA_ERR_NOENTITY) return AudioSourceError::noOutputDevice();  // removed meanwhile
        return AudioSourceError::monitorFormatUnavailable(error);
    }
    if (const int error = pulse::querySourceInfo(loop, context, sink.monitorSourceName, monitor_))
        return AudioSourceError::monitorFormatUnavailable(error);
    if (monitor_.spec.rate == 0 || monitor_.spec.channels == 0)
        return AudioSourceError::monitorFormatUnavailable(0);
    sinkName_ = server.defaultSinkName;

    stream_ = pulse::newRecordStream(context, "System Audio", monitor_);
    if (!stream_) return AudioSourceError::streamCreationFailed(pulse::lastError(context));
    const pa_sample_spec& spec = *pa_stream_get_sample_spec(stream_.get());
    channels_ = spec.channels;

    sampleRate_.store(monitor_.spec.rate, std::memory_order_relaxed);

    startListeningForChanges();

    // The analysis diagnostics switch covers the capture rates too: one place decides where they go.
    if (const auto& debug = EngineSettings::parameters().tempo.onDebug) {
        const std::string lines = "tap format rate=" + pulse::rateText(spec.rate) +
                                  " ch=" + std::to_string(spec.channels) +
                                  " flags=" + std::to_string(static_cast<int>(spec.format)) +
                                  " bpf=" + std::to_string(pa_frame_size(&spec)) +
                                  "\naggregate nominal rate=" + pulse::rateText(monitor_.spec.rate) +
                                  "\noutput device nominal rate=" +
                                  pulse::rateText(sink.spec.rate > 0 ? double(sink.spec.rate) : -1.0) +
                                  "\nusing rate=" + pulse::rateText(sampleRate()) + "\n";
        debug(lines);
    }

    mixer_.reserve(kInitialMixFrames);
    pa_stream_set_read_callback(stream_.get(), readCallback, this);
    const uint32_t fragmentFrames = std::max<uint32_t>(1, spec.rate * kFragmentMilliseconds / 1000);
    if (const int error =
            pulse::connectRecord(loop, context, stream_.get(), monitor_.name.c_str(), fragmentFrames))
        return AudioSourceError::recordingFailed(error);
    pa_stream_set_state_callback(stream_.get(), streamStateCallback, this);
    return std::nullopt;
}

void SystemAudioSource::startListeningForChanges() {
    watch_ = std::make_unique<pulse::ServerWatch>(loop_.get(), context_, stream_, *this,
                                                  pulse::ServerWatch::Records::defaultSink);
    watch_->attach();
    pa_context_set_subscribe_callback(context_.get(), subscribeCallback, this);
    // A failed subscription only means changes are not followed.
    (void)pulse::subscribe(loop_.get(), context_.get(), kSubscriptions);
}

void SystemAudioSource::stop() {
    if (!loop_) return;
    // The loop cannot stop itself; a stop requested from a callback would deadlock or abort.
    if (pa_threaded_mainloop_in_thread(loop_.get())) return;
    {
        pulse::Lock lock(loop_.get());
        watch_.reset();
        stream_.reset();
        context_.reset();
    }
    loop_.reset();
}

void SystemAudioSource::readCallback(pa_stream* stream, size_t, void* userdata) {
    auto* self = static_cast<SystemAudioSource*>(userdata);
    self->mixer_.read(stream, self->channels_, self->onSamples);
}

void SystemAudioSource::streamStateCallback(pa_stream* stream, void* userdata) {
    auto* self = static_cast<SystemAudioSource*>(userdata);
    if (PA_STREAM_IS_GOOD(pa_stream_get_state(stream))) return;
    // The stream also fails when the whole connection drops; the context's callback handles that.
    if (pa_context_get_state(pa_stream_get_context(stream)) == PA_CONTEXT_READY) self->askForRestart();
}

void SystemAudioSource::askForRestart() {
    if (onNeedsRestart) onNeedsRestart();
}

void SystemAudioSource::subscribeCallback(pa_context* context, pa_subscription_event_type_t event,
                                          uint32_t index, void* userdata) {
    auto* self = static_cast<SystemAudioSource*>(userdata);
    const auto facility = event & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
    const auto type = event & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
    if (type != PA_SUBSCRIPTION_EVENT_CHANGE) return;
    // Fire the query and return: callbacks must never wait.
    if (facility == PA_SUBSCRIPTION_EVENT_SERVER) {
        unrefIfAny(pa_context_get_server_info(context, serverInfoCallback, self));
    } else if (facility == PA_SUBSCRIPTION_EVENT_SOURCE && index == self->monitor_.index &&
               !self->watch_->lost()) {
        unrefIfAny(pa_context_get_source_info_by_index(context, index, monitorInfoCallback, self));
    }
}

void SystemAudioSource::serverInfoCallback(pa_context*, const pa_server_info* info, void* userdata) {
    auto* self = static_cast<SystemAudioSource*>(userdata);
    if (!info) return;
    const char* sink = info->default_sink_name ? info->default_sink_name : "";
    // After a loss the watch decides when to restart.
    if (!self->watch_->lost() && self->sinkName_ != sink) {
        // A record stream stays on the monitor it was connected to, so a new default sink needs a new chain.
        self->sinkName_ = sink;
        self->askForRestart();
    }
}

void SystemAudioSource::monitorInfoCallback(pa_context*, const pa_source_info* info, int eol,
                                            void* userdata) {
    if (eol != 0 || !info) return;
    static_cast<SystemAudioSource*>(userdata)->followMonitorRate(*info);
}

void SystemAudioSource::followMonitorRate(const pa_source_info& info) {
    const double rate = info.sample_spec.rate;
    if (rate <= 0 || std::abs(rate - sampleRate()) <= 0.5 || !stream_ || !context_) return;
    // The stream was opened at the old rate and would be resampled to it; record anew at the monitor's
    // rate instead, so samples arrive at the rate the owner is told about.
    monitor_.spec = info.sample_spec;
    monitor_.map = info.channel_map;
    stream_.reset();
    stream_ = pulse::newRecordStream(context_.get(), "System Audio", monitor_);
    if (!stream_) {
        askForRestart();
        return;
    }
    const pa_sample_spec& spec = *pa_stream_get_sample_spec(stream_.get());
    channels_ = spec.channels;
    pa_stream_set_read_callback(stream_.get(), readCallback, this);
    pa_stream_set_state_callback(stream_.get(), streamStateCallback, this);
    const uint32_t fragmentFrames = std::max<uint32_t>(1, spec.rate * kFragmentMilliseconds / 1000);
    if (pulse::startRecording(stream_.get(), monitor_.name.c_str(), fragmentFrames) != 0) {
        askForRestart();
        return;
    }
    sampleRate_.store(rate, std::memory_order_relaxed);
    if (onSampleRateChange) onSampleRateChange(rate);
}

}  // namespace velquin
