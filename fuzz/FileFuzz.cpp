// Arbitrary bytes through the decoder and on into the analyzers, by the same feed loop a file analysis
// uses. FFmpeg itself is not instrumented, so what this exercises is our wrapper and the analysis code
// behind it.

#include <cstddef>
#include <cstdint>
#include <span>

#include "fileanalysis/AudioFileReader.h"
#include "fileanalysis/FileAnalysis.h"

namespace {

// Enough audio for every analysis stage to run; more only slows the fuzzer down.
constexpr double maximumSeconds = 30;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace velquin;
    try {
        AudioFileReader reader = AudioFileReader::fromMemory(std::span<const std::uint8_t>(data, size));
        if (!(reader.sampleRate() > 0) || reader.channelCount() <= 0) return 0;
        (void)fileAnalysis::analyzeReader(reader, TempoRange::Auto, {}, maximumSeconds);
    } catch (const AudioFileError&) {
        // Refusing the input is the right answer for most of them.
    }
    return 0;
}
