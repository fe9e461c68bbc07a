#include "capture/MicrophoneSource.h"

namespace velquin {

namespace {
constexpr uint32_t kFragmentFrames = 2048;
}  // namespace

MicrophoneSource::MicrophoneSource()
    : capture_(*this, {.records = pulse::Capture::Records::defaultSource,
                       .threadName = "velquin.mic",
                       .streamName = "Microphone",
                       .fragmentFrames = kFragmentFrames,
                       // Blocks may come larger than requested: room for a few, so it rarely grows.
                       .reserveFrames = 4 * kFragmentFrames}) {}

MicrophoneSource::~MicrophoneSource() {
    stop();
}

void MicrophoneSource::start() {
    if (const int error = capture_.start())
        throw AudioSourceError::serverUnreachable(error, AudioSourceKind::microphone);
}

void MicrophoneSource::stop() {
    capture_.stop();
}

}  // namespace velquin
