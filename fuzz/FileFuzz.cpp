// Arbitrary bytes through the decoder and on into the analyzers, as a file analysis would take them.
// FFmpeg itself is not instrumented, so what this exercises is our wrapper and the analysis code behind it.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "AudioFileReader.h"
#include "KeyAnalyzer.h"
#include "TempoAnalyzer.h"

namespace {

// Enough audio for every analysis stage to run; more only slows the fuzzer down.
constexpr double maximumSeconds = 30;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace velquin;
    try {
        AudioFileReader reader = AudioFileReader::fromMemory(std::span<const std::uint8_t>(data, size));
        const double rate = reader.sampleRate();
        const int channels = reader.channelCount();
        if (!(rate > 0) || channels <= 0) return 0;

        TempoAnalyzer tempo(rate, true);
        KeyAnalyzer key(rate, true);
        std::vector<float> mono(static_cast<size_t>(AudioFileReader::chunkFrames));
        const auto limit = static_cast<int64_t>(rate * maximumSeconds);
        int64_t framesRead = 0;
        while (framesRead < limit) {
            const int64_t frames = reader.read(AudioFileReader::chunkFrames);
            if (frames <= 0) break;
            reader.mixToMono(frames, mono.data());
            const std::span<const float> block(mono.data(), static_cast<size_t>(frames));
            tempo.append(block);
            key.append(block);
            framesRead += frames;
        }
        (void)tempo.estimateGlobal();
        (void)key.decide(std::numeric_limits<double>::infinity());
    } catch (const AudioFileError&) {
        // Refusing the input is the right answer for most of them.
    }
    return 0;
}
