// One streaming routine under every whole-file operation: decode, mix to mono, feed the analyzers.

#include "FileAnalysis.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <system_error>
#include <sys/stat.h>
#include <unistd.h>

#include "AudioFileReader.h"
#include "Format.h"
#include "OutputFile.h"
#include "KeyAnalyzer.h"
#include "TempoAnalyzer.h"

namespace velquin::FileAnalysis {

namespace {

// Decodes `reader` chunk by chunk (at most `maximumFrames`), mixing each chunk to mono for `consume`.
// Checks for cancellation and reports progress after every chunk; returns the frames read.
int64_t feed(AudioFileReader& reader, const FileAnalysisOptions& options, int64_t maximumFrames,
             const std::function<void(std::span<const float>)>& consume) {
    const double rate = reader.sampleRate();
    const double total = reader.durationSeconds();
    std::vector<float> mono(static_cast<size_t>(AudioFileReader::chunkFrames));
    int64_t framesRead = 0;
    while (framesRead < maximumFrames) {
        if (options.stop.stop_requested()) throw AnalysisCancelled();
        const int64_t frames = reader.read(std::min(AudioFileReader::chunkFrames, maximumFrames - framesRead));
        if (frames <= 0) break;
        reader.mixToMono(frames, mono.data());
        consume(std::span<const float>(mono.data(), static_cast<size_t>(frames)));
        framesRead += frames;
        if (options.onProgress) options.onProgress(static_cast<double>(framesRead) / rate, total);
    }
    if (options.stop.stop_requested()) throw AnalysisCancelled();
    return framesRead;
}

using TickCallback = std::function<void(double seconds, const KeyEstimate&, const TempoEstimate&)>;

struct Stream {
    TempoRange range = TempoRange::Auto;
    std::optional<double> everySeconds;  // the live pair's reading interval, for timelines
    TickCallback onTick;
    KeyAnalyzer* keyAnalyzer = nullptr;  // the offline key analyzer to use instead of a fresh one
    int64_t maximumFrames = std::numeric_limits<int64_t>::max();
};

struct Streamed {
    TempoEstimate tempo;
    KeyEstimate key;
    double durationSeconds = 0;
    int64_t liveRestarts = 0;
};

Streamed streamFile(AudioFileReader& reader, const Stream& stream, const FileAnalysisOptions& options) {
    const double rate = reader.sampleRate();
    const auto bounds = velquin::bounds(stream.range);

    TempoAnalyzer tempo(rate, true);
    tempo.setBpmRange(bounds);
    std::optional<KeyAnalyzer> ownKey;
    KeyAnalyzer* keyAnalyzer = stream.keyAnalyzer;
    if (keyAnalyzer == nullptr) keyAnalyzer = &ownKey.emplace(rate, true);

    std::optional<KeyAnalyzer> liveKey;
    std::optional<TempoAnalyzer> liveTempo;
    double nextTick = 0;
    int64_t seenRegimes = 0;
    int64_t seenRestarts = 0;
    if (stream.everySeconds) {
        liveKey.emplace(rate, false);
        liveTempo.emplace(rate, false);
        liveTempo->setBpmRange(bounds);
        nextTick = *stream.everySeconds;
    }

    int64_t framesRead = 0;
    feed(reader, options, stream.maximumFrames, [&](std::span<const float> block) {
        tempo.append(block);
        keyAnalyzer->append(block);
        if (liveKey) liveKey->append(block);
        if (liveTempo) liveTempo->append(block);
        framesRead += static_cast<int64_t>(block.size());

        if (liveKey) {
            const double t = static_cast<double>(framesRead) / rate;
            if (t >= nextTick) {
                const TempoEstimate liveTempoEstimate = liveTempo->estimate();
                if (liveTempo->regimeChanges() != seenRegimes) {
                    liveKey->restart(8.0);
                    seenRegimes = liveTempo->regimeChanges();
                }
                const KeyEstimate key = liveKey->estimate();
                if (liveKey->restarts() != seenRestarts) {
                    liveTempo->unlock();
                    seenRestarts = liveKey->restarts();
                }
                stream.onTick(t, key, liveTempoEstimate);
                nextTick += *stream.everySeconds;
            }
        }
    });

    Streamed result;
    result.tempo = tempo.estimateGlobal();
    result.key = keyAnalyzer->decide(std::numeric_limits<double>::infinity());
    result.durationSeconds = static_cast<double>(framesRead) / rate;
    if (liveKey) result.liveRestarts = liveKey->restarts();
    return result;
}

}  // namespace

FileResult analyzeReader(AudioFileReader& reader, TempoRange range, const FileAnalysisOptions& options,
                         double maximumSeconds) {
    Stream stream;
    stream.range = range;
    const double frames = std::floor(maximumSeconds * reader.sampleRate());
    if (frames < static_cast<double>(stream.maximumFrames)) stream.maximumFrames = static_cast<int64_t>(frames);
    const Streamed streamed = streamFile(reader, stream, options);
    return {streamed.tempo, streamed.key, streamed.durationSeconds};
}

FileResult analyzeFile(const std::string& path, TempoRange range, const FileAnalysisOptions& options) {
    AudioFileReader reader(path);
    return analyzeReader(reader, range, options);
}

Timeline keyTimeline(const std::string& path, double everySeconds, const FileAnalysisOptions& options) {
    AudioFileReader reader(path);
    Timeline timeline;
    Stream stream;
    stream.everySeconds = everySeconds;
    stream.onTick = [&](double seconds, const KeyEstimate& key, const TempoEstimate& tempo) {
        timeline.ticks.push_back({seconds, key, tempo});
    };
    const Streamed streamed = streamFile(reader, stream, options);
    timeline.final = streamed.key;
    timeline.finalTempo = streamed.tempo;
    timeline.restarts = streamed.liveRestarts;
    return timeline;
}

void dumpChroma(const std::string& inputPath, const std::string& outputPath, const FileAnalysisOptions& options) {
    AudioFileReader reader(inputPath);
    KeyAnalyzer analyzer(reader.sampleRate(), true);
    analyzer.dumpFrames = true;
    Stream stream;
    stream.keyAnalyzer = &analyzer;
    streamFile(reader, stream, options);

    std::string csv = "t";
    for (int i = 0; i < 12; ++i) csv += ",c" + std::to_string(i);
    for (int i = 0; i < 12; ++i) csv += ",m" + std::to_string(i);
    csv += ",bass\n";
    for (const auto& row : analyzer.dumped()) {
        csv += format("%.3f,", row.seconds);
        for (size_t i = 0; i < 12; ++i) csv += format(i == 0 ? "%.4f" : ",%.4f", row.chroma[i]);
        csv += ",";
        for (size_t i = 0; i < 12; ++i) csv += format(i == 0 ? "%.4f" : ",%.4f", row.mid[i]);
        csv += "," + std::to_string(row.bass) + "\n";
    }
    OutputFile output(outputPath);
    output.write(csv);
    output.commit();
}

}  // namespace velquin::FileAnalysis
