#include "MicrophoneSource.h"

#include <algorithm>

namespace velquin {

namespace {

constexpr uint32_t kFragmentFrames = 2048;
constexpr const char* kEmptyFormat = "input device reported an empty format";

AudioSourceError failed(int error) {
    return AudioSourceError::engineFailed(pa_strerror(error));
}

AudioSourceError unreachable(int error) {
    return AudioSourceError::serverUnreachable(error, AudioSourceKind::microphone);
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
    watch_ = std::make_unique<pulse::ServerWatch>(loop, context_, stream_, *this,
                                                  pulse::ServerWatch::Records::defaultSource);
    watch_->attach();
    return std::nullopt;
}

void MicrophoneSource::stop() {
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

void MicrophoneSource::readCallback(pa_stream* stream, size_t, void* userdata) {
    auto* self = static_cast<MicrophoneSource*>(userdata);
    self->mixer_.read(stream, self->channels_, self->onSamples);
}

}  // namespace velquin
