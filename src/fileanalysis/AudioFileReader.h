#pragma once
// Any audio file (or the first audio stream of a movie) presented as 32-bit float, non-interleaved
// channels at the file's own rate and channel count. Never resamples.

#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace velquin {

// A decoder failure; what() is the decoder's own text (or ours where it has none).
class AudioFileError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class AudioFileReader {
  public:
    static constexpr int64_t chunkFrames = 16384;
    // Rates past this are refused: no listener plays them, and the analyzers' frames grow with the rate.
    static constexpr int maximumSampleRate = 1'536'000;

    // Throws AudioFileError when the file cannot be opened or holds no decodable audio stream.
    explicit AudioFileReader(const std::string& path);
    // The same from bytes already in memory; `bytes` must outlive the reader.
    static AudioFileReader fromMemory(std::span<const std::uint8_t> bytes);
    ~AudioFileReader();
    AudioFileReader(const AudioFileReader&) = delete;
    AudioFileReader& operator=(const AudioFileReader&) = delete;

    double sampleRate() const;
    int channelCount() const;
    // The container's idea of the audio's length; 0 when it has none.
    double durationSeconds() const;

    // Decodes up to `maxFrames` (≤ chunkFrames) frames into the reader's own channel buffers and
    // returns how many it got; 0 means the end of the stream. Throws AudioFileError on a hard
    // failure. channel(k) is valid until the next read.
    int64_t read(int64_t maxFrames = chunkFrames);
    const float* channel(int k) const;
    // The last read's channels summed in order in single precision, then scaled by 1/channels when
    // there is more than one (a mono file passes unscaled), into `mono` (room for `frames`).
    void mixToMono(int64_t frames, float* mono) const;

  private:
    struct State;
    explicit AudioFileReader(std::unique_ptr<State> state);

    std::unique_ptr<State> state_;
};

}  // namespace velquin
