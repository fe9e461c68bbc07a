#include "MicrophoneSource.h"

#include <algorithm>

namespace velquin {

namespace {

constexpr uint32_t kFragmentFrames = 2048;
constexpr std::chrono::milliseconds kRetryInterval{1000};
constexpr const char* kEmptyFormat = "input device reported an empty format";

AudioSourceError failed(int error) {
    return AudioSourceError::engineFailed(pa_strerror(error));
}

AudioSourceError unreachable(int error) {
    return AudioSourceError::serverUnreachable(error, AudioSourceKind::microphone);
}

void unrefIfAny(pa_operation* op) {
    if (op) pa_operation_unref(op);  // null when the context is no longer READY
}

}  // namespace

MicrophoneSource::MicrophoneSource() = default;

MicrophoneSource::~MicrophoneSource() {
    stop();
}

void MicrophoneSource::start() {
    stop();
    loop_ = pulse::startMainloop("velquin.mic");
    if (!loop_) throw unreachable(PA_ERR_INTERNAL);
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

std::optional<AudioSourceError> MicrophoneSource::startLocked() {
    pa_threaded_mainloop* loop = loop_.get();
    context_ = pulse::newContext(loop);
    if (!context_) return unreachable(PA_ERR_INTERNAL);
    if (const int error = pulse::connect(loop, context_.get())) return unreachable(error);
    pa_context* context = context_.get();

    pulse::ServerInfo server;
    if (const int error = pulse::queryServerInfo(loop, context, server)) return failed(error);
    if (server.defaultSourceName.empty()) return AudioSourceError::engineFailed(kEmptyFormat);
    pulse::DeviceInfo input;
    if (const int error = pulse::querySourceInfo(loop, context, server.defaultSourceName, input))
        return error == PA_ERR_NOENTITY ? AudioSourceError::engineFailed(kEmptyFormat) : failed(error);
    if (input.spec.rate == 0 || input.spec.channels == 0) return AudioSourceError::engineFailed(kEmptyFormat);
    sampleRate_.store(input.spec.rate, std::memory_order_relaxed);

    stream_ = pulse::newRecordStream(context, "Microphone", input);
    if (!stream_) return failed(pulse::lastError(context));
    channels_ = pa_stream_get_sample_spec(stream_.get())->channels;
    // Blocks may come larger than requested; start with room for a few so the buffer rarely grows.
    mixer_.reserve(4 * kFragmentFrames);
    pa_stream_set_read_callback(stream_.get(), readCallback, this);
    if (const int error =
            pulse::connectRecord(loop, context, stream_.get(), input.name.c_str(), kFragmentFrames))
        return failed(error);
    retryTimer_ = std::make_unique<pulse::Timer>(loop, [this] { retryConnection(); });
    pa_context_set_state_callback(context, contextStateCallback, this);
    return std::nullopt;
}

void MicrophoneSource::stop() {
    if (!loop_) return;
    // The loop cannot stop itself; a stop requested from a callback would deadlock or abort.
    if (pa_threaded_mainloop_in_thread(loop_.get())) return;
    {
        pulse::Lock lock(loop_.get());
        retryTimer_.reset();
        stream_.reset();
        context_.reset();
        serverLost_ = restartAsked_ = false;
    }
    loop_.reset();
}

void MicrophoneSource::handle(const float* data, size_t frames, unsigned channels) {
    mixer_.mix(data, frames, channels, onSamples);
}

void MicrophoneSource::readCallback(pa_stream* stream, size_t, void* userdata) {
    auto* self = static_cast<MicrophoneSource*>(userdata);
    self->mixer_.read(stream, self->channels_, self->onSamples);
}

void MicrophoneSource::contextStateCallback(pa_context* context, void* userdata) {
    auto* self = static_cast<MicrophoneSource*>(userdata);
    const pa_context_state_t state = pa_context_get_state(context);
    if (state == PA_CONTEXT_READY && self->serverLost_) {
        // Back: restart once there is an input to record (now, or when the server announces one).
        pa_context_set_subscribe_callback(context, subscribeCallback, self);
        unrefIfAny(pa_context_subscribe(context, PA_SUBSCRIPTION_MASK_SERVER, nullptr, nullptr));
        unrefIfAny(pa_context_get_server_info(context, serverInfoCallback, self));
    } else if (!PA_CONTEXT_IS_GOOD(state)) {
        self->connectionLost();
    }
}

void MicrophoneSource::connectionLost() {
    // A failed context can be neither reused nor freed inside its own callback: the retry timer replaces it.
    const bool first = !serverLost_;
    serverLost_ = true;
    if (retryTimer_) retryTimer_->arm(kRetryInterval);
    if (first && onServerLost) onServerLost();
}

void MicrophoneSource::retryConnection() {
    stream_.reset();
    context_ = pulse::newContext(loop_.get());
    if (context_) {
        pa_context_set_state_callback(context_.get(), contextStateCallback, this);
        if (pa_context_connect(context_.get(), nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0) return;
        context_.reset();
    }
    retryTimer_->arm(kRetryInterval);
}

void MicrophoneSource::subscribeCallback(pa_context* context, pa_subscription_event_type_t event, uint32_t,
                                         void* userdata) {
    if ((event & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) != PA_SUBSCRIPTION_EVENT_SERVER) return;
    unrefIfAny(pa_context_get_server_info(context, serverInfoCallback, userdata));
}

void MicrophoneSource::serverInfoCallback(pa_context*, const pa_server_info* info, void* userdata) {
    auto* self = static_cast<MicrophoneSource*>(userdata);
    if (!info || !info->default_source_name || !*info->default_source_name || self->restartAsked_) return;
    // Once is enough: the owner's restart replaces this whole connection.
    self->restartAsked_ = true;
    if (self->onNeedsRestart) self->onNeedsRestart();
}

}  // namespace velquin
