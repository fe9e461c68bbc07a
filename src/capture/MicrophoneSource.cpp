#include "MicrophoneSource.h"

#include <algorithm>

namespace velquin {

namespace {

constexpr uint32_t kFragmentFrames = 2048;
constexpr const char* kEmptyFormat = "input device reported an empty format";

AudioSourceError failed(int error) { return AudioSourceError::engineFailed(pa_strerror(error)); }

}  // namespace

MicrophoneSource::MicrophoneSource() = default;

MicrophoneSource::~MicrophoneSource() { stop(); }

void MicrophoneSource::start() {
    stop();
    loop_ = pulse::startMainloop("velquin.mic");
    if (!loop_) throw failed(PA_ERR_INTERNAL);
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
    if (!context_) return failed(PA_ERR_INTERNAL);
    if (const int error = pulse::connect(loop, context_.get())) return failed(error);
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
    if (mono_.size() < 4 * kFragmentFrames) mono_.assign(4 * kFragmentFrames, 0.0f);
    pa_stream_set_read_callback(stream_.get(), readCallback, this);
    if (const int error = pulse::connectRecord(loop, context, stream_.get(), input.name.c_str(), kFragmentFrames))
        return failed(error);
    return std::nullopt;
}

void MicrophoneSource::stop() {
    if (!loop_) return;
    // The loop cannot stop itself; a stop requested from a callback would deadlock or abort.
    if (pa_threaded_mainloop_in_thread(loop_.get())) return;
    {
        pulse::Lock lock(loop_.get());
        stream_.reset();
        context_.reset();
    }
    loop_.reset();
}

void MicrophoneSource::handle(const float* data, size_t frames, unsigned channels) {
    if (!data || frames == 0 || channels == 0) return;
    if (mono_.size() < frames) mono_.assign(frames, 0.0f);
    pulse::mixInterleavedToMono(data, frames, channels, mono_.data());
    if (onSamples) onSamples(mono_.data(), static_cast<int64_t>(frames));
}

void MicrophoneSource::deliverSilence(size_t frames) {
    if (frames == 0) return;
    if (mono_.size() < frames) mono_.assign(frames, 0.0f);
    std::fill_n(mono_.begin(), frames, 0.0f);
    if (onSamples) onSamples(mono_.data(), static_cast<int64_t>(frames));
}

void MicrophoneSource::readCallback(pa_stream* stream, size_t, void* userdata) {
    auto* self = static_cast<MicrophoneSource*>(userdata);
    const size_t frameBytes = size_t(self->channels_) * sizeof(float);
    pulse::drain(stream, [self, frameBytes](const float* data, size_t bytes) {
        // A hole is time the server has no audio for: keep the sample count honest with silence.
        if (data)
            self->handle(data, bytes / frameBytes, self->channels_);
        else
            self->deliverSilence(bytes / frameBytes);
    });
}

}  // namespace velquin
