#include "capture/MicrophoneSource.h"

namespace velquin {

namespace {
constexpr uint32_t fragmentFrames = 2048;
}  // namespace

MicrophoneSource::MicrophoneSource()
    : CaptureSource(AudioSourceKind::microphone,
                    {.records = pulse::Capture::Records::defaultSource,
                     .threadName = "velquin.mic",
                     .streamName = "Microphone",
                     .fragmentFrames = fragmentFrames,
                     // Blocks may come larger than requested: room for a few, so it rarely grows.
                     .reserveFrames = 4 * fragmentFrames}) {}

}  // namespace velquin
