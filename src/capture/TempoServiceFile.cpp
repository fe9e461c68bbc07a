// The whole-file side of TempoService: decode chunk by chunk, mix to mono, feed an offline analyzer
// pair (and, for timelines, a live pair sampled at fixed intervals of file time).

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <system_error>
#include <sys/stat.h>
#include <unistd.h>

#include "AudioFileReader.h"
#include "Format.h"
#include "OutputFile.h"
#include "KeyAnalyzer.h"
#include "TempoAnalyzer.h"
#include "TempoService.h"

namespace velquin {

namespace {

using TickCallback = std::function<void(double seconds, const KeyEstimate&, const TempoEstimate&)>;
using FinishCallback = std::function<void(const TempoEstimate&, const KeyEstimate&)>;

void streamFile(const std::string& path, TempoRange range, std::optional<double> everySeconds,
                const TickCallback& onTick, const FinishCallback& onFinish, KeyAnalyzer* keyAnalyzer,
                const std::function<void(int64_t restarts)>& onLiveDone = [](int64_t) {}) {
    AudioFileReader reader(path);
    const double rate = reader.sampleRate();
    const auto bounds = velquin::bounds(range);

    TempoAnalyzer tempo(rate, true);
    tempo.setBpmRange(bounds);
    std::optional<KeyAnalyzer> ownKey;
    if (keyAnalyzer == nullptr) keyAnalyzer = &ownKey.emplace(rate, true);

    std::optional<KeyAnalyzer> liveKey;
    std::optional<TempoAnalyzer> liveTempo;
    double nextTick = 0;
    int64_t seenRegimes = 0;
    int64_t seenRestarts = 0;
    if (everySeconds) {
        liveKey.emplace(rate, false);
        liveTempo.emplace(rate, false);
        liveTempo->setBpmRange(bounds);
        nextTick = *everySeconds;
    }

    std::vector<float> mono(static_cast<size_t>(AudioFileReader::chunkFrames));
    int64_t framesRead = 0;
    for (;;) {
        const int64_t frames = reader.read(AudioFileReader::chunkFrames);
        if (frames <= 0) break;
        reader.mixToMono(frames, mono.data());
        const std::span<const float> block(mono.data(), static_cast<size_t>(frames));
        tempo.append(block);
        keyAnalyzer->append(block);
        if (liveKey) liveKey->append(block);
        if (liveTempo) liveTempo->append(block);
        framesRead += frames;

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
                onTick(t, key, liveTempoEstimate);
                nextTick += *everySeconds;
            }
        }
    }

    onFinish(tempo.estimateGlobal(), keyAnalyzer->decide(std::numeric_limits<double>::infinity()));
    if (liveKey) onLiveDone(liveKey->restarts());
}

}  // namespace

TempoService::FileResult TempoService::analyzeFile(const std::string& path, TempoRange range) {
    std::optional<FileResult> result;
    streamFile(
        path, range, std::nullopt, [](double, const KeyEstimate&, const TempoEstimate&) {},
        [&](const TempoEstimate& tempo, const KeyEstimate& key) { result = FileResult{tempo, key}; }, nullptr);
    if (!result) throw AudioSourceError::engineFailed("empty file");
    return *result;
}

TempoService::Timeline TempoService::keyTimeline(const std::string& path, double everySeconds) {
    Timeline timeline;
    streamFile(
        path, TempoRange::Auto, everySeconds,
        [&](double seconds, const KeyEstimate& key, const TempoEstimate& tempo) {
            timeline.ticks.push_back({seconds, key, tempo});
        },
        [&](const TempoEstimate& tempo, const KeyEstimate& key) {
            timeline.finalTempo = tempo;
            timeline.final = key;
        },
        nullptr, [&](int64_t restarts) { timeline.restarts = restarts; });
    return timeline;
}

void TempoService::dumpChroma(const std::string& inputPath, const std::string& outputPath) {
    const double rate = AudioFileReader(inputPath).sampleRate();
    KeyAnalyzer analyzer(rate, true);
    analyzer.dumpFrames = true;
    streamFile(
        inputPath, TempoRange::Auto, std::nullopt, [](double, const KeyEstimate&, const TempoEstimate&) {},
        [](const TempoEstimate&, const KeyEstimate&) {}, &analyzer);

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

}  // namespace velquin
