// One streaming routine under every whole-file operation: decode, mix to mono, feed the analyzers.

#include "fileanalysis/FileAnalysis.h"

#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <limits>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "analysis/EngineSettings.h"
#include "analysis/Format.h"
#include "analysis/KeyAnalyzer.h"
#include "analysis/LiveAnalysis.h"
#include "analysis/PreciseKey.h"
#include "analysis/PreciseTempo.h"
#include "analysis/TempoAnalyzer.h"
#include "fileanalysis/AudioFileReader.h"
#include "fileanalysis/ChunkQueue.h"
#include "system/OutputFile.h"

namespace velquin::fileAnalysis {

namespace {

// Chunks decoded ahead of the slowest analyzer: enough to ride out uneven chunk costs, small enough to
// stay in cache.
constexpr size_t queueSlots = 4;

// One analyzer's share of a file: every chunk in order, then its decision.
struct Consumer {
    std::function<void(std::span<const float>)> feed;
    std::function<void()> finish;
};

class Pipeline {
  public:
    Pipeline(AudioFileReader& reader, const FileAnalysisOptions& options, int64_t maximumFrames)
        : reader_(reader),
          options_(options),
          maximumFrames_(maximumFrames),
          total_(reader.durationSeconds()) {}

    // Runs every consumer over the whole file; returns the frames decoded. Throws the first error (the
    // decoder's or an analyzer's) or AnalysisCancelled once every thread has stopped.
    int64_t run(std::vector<Consumer>& consumers) {
        const bool threaded = options_.execution == Execution::automatic && consumers.size() > 1 &&
                              std::thread::hardware_concurrency() > 1;
        if (threaded)
            feedThreaded(consumers);
        else
            feedSequential(consumers);
        if (options_.stop.stop_requested()) throw AnalysisCancelled();
        // The decisions are brief; taken in order on this thread, their debug reports come out in the
        // same order however the chunks were shared out.
        for (Consumer& consumer : consumers) consumer.finish();
        return framesRead_;
    }

  private:
    // Decodes the next chunk into `mono`; 0 at the end.
    int64_t decode(std::span<float> mono) {
        if (framesRead_ >= maximumFrames_) return 0;
        const int64_t frames =
            reader_.read(std::min(AudioFileReader::chunkFrames, maximumFrames_ - framesRead_));
        if (frames <= 0) return 0;
        reader_.mixToMono(frames, mono.data());
        framesRead_ += frames;
        return frames;
    }

    void progress() const {
        if (options_.onProgress)
            options_.onProgress(static_cast<double>(framesRead_) / reader_.sampleRate(), total_);
    }

    void feedSequential(std::vector<Consumer>& consumers) {
        std::vector<float> mono(static_cast<size_t>(AudioFileReader::chunkFrames));
        while (!options_.stop.stop_requested()) {
            const auto frames = static_cast<size_t>(decode(mono));
            if (frames == 0) break;
            for (Consumer& consumer : consumers) consumer.feed(std::span<const float>(mono.data(), frames));
            progress();
        }
    }

    // This thread decodes into the queue; each consumer reads it on a thread of its own.
    void feedThreaded(std::vector<Consumer>& consumers) {
        ChunkQueue queue(queueSlots, static_cast<size_t>(AudioFileReader::chunkFrames), consumers.size());
        std::mutex errorMutex;
        std::exception_ptr error;
        const auto fail = [&](std::exception_ptr e) {
            {
                std::lock_guard lock(errorMutex);
                if (!error) error = std::move(e);
            }
            queue.close();
        };
        const std::stop_callback onStop(options_.stop, [&] { queue.close(); });
        {
            std::vector<std::jthread> threads;
            threads.reserve(consumers.size());
            for (size_t index = 0; index < consumers.size(); ++index) {
                threads.emplace_back([&, index] {
                    try {
                        Consumer& consumer = consumers[index];
                        for (auto chunk = queue.next(index); !chunk.empty(); chunk = queue.next(index)) {
                            consumer.feed(chunk);
                            queue.release(index);
                        }
                    } catch (...) {
                        fail(std::current_exception());
                    }
                });
            }
            try {
                for (auto room = queue.acquire(); !room.empty(); room = queue.acquire()) {
                    const auto frames = static_cast<size_t>(decode(room));
                    if (frames == 0) break;
                    queue.publish(frames);
                    progress();
                }
                queue.finish();
            } catch (...) {
                fail(std::current_exception());
            }
        }  // joins the consumers
        if (error) std::rethrow_exception(error);
    }

    AudioFileReader& reader_;
    const FileAnalysisOptions& options_;
    const int64_t maximumFrames_;
    const double total_;
    int64_t framesRead_ = 0;
};

using TickCallback = std::function<void(double seconds, const KeyEstimate&, const TempoEstimate&)>;

struct Stream {
    TempoRange range = TempoRange::Auto;
    Analysis analysis = Analysis::specified;
    bool withTempo = true;
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

// The precise pair over the whole file; returns the frames decoded.
int64_t streamPrecise(AudioFileReader& reader, BPMBounds bounds, const FileAnalysisOptions& options,
                      int64_t maximumFrames, Streamed& result) {
    const double rate = reader.sampleRate();
    const AnalyzerParameters& parameters = engineSettings::parameters();
    PreciseTempoAnalyzer tempo(rate);
    KeyAnalyzer key(rate, true, parameters.key);
    key.setDumpFrames(true);  // the precise key takes every frame as it comes
    preciseKey::Accumulator frames;
    std::vector<Consumer> consumers;
    // The default tempo reading beside it, to defer to where it is certain; on a thread of its own, and
    // decided first (the decisions are taken in order).
    TempoAnalyzer other(rate, true, parameters.tempo);
    other.setBpmRange(bounds);
    TempoEstimate otherTempo;
    consumers.push_back({[&](std::span<const float> block) { other.append(block); },
                         [&] { otherTempo = other.estimateGlobal(); }});
    consumers.push_back({[&](std::span<const float> block) { tempo.append(block); },
                         [&] { result.tempo = tempo.estimate(bounds, otherTempo); }});
    consumers.push_back({[&](std::span<const float> block) {
                             key.append(block);
                             frames.add(key.dumped());
                             key.clearDumped();
                         },
                         [&] {
                             const KeyEstimate base = key.decide(std::numeric_limits<double>::infinity());
                             result.key =
                                 frames.empty() ? base : preciseKey::decide(frames.scores(base.key), base);
                         }});
    return Pipeline(reader, options, maximumFrames).run(consumers);
}

// The offline pair (and for timelines the live pair) over the whole file. The analyzers are independent
// of one another, so each may run on its own thread; the live pair stays together, since its key
// analyzer restarts on its tempo analyzer's regime changes.
Streamed streamFile(AudioFileReader& reader, const Stream& stream, const FileAnalysisOptions& options) {
    const double rate = reader.sampleRate();
    const auto bounds = velquin::bounds(stream.range);
    const AnalyzerParameters& parameters = engineSettings::parameters();
    Streamed result;
    std::vector<Consumer> consumers;

    if (stream.analysis == Analysis::precise) {
        const int64_t frames = streamPrecise(reader, bounds, options, stream.maximumFrames, result);
        result.durationSeconds = static_cast<double>(frames) / rate;
        return result;
    }

    std::optional<TempoAnalyzer> tempo;
    if (stream.withTempo) {
        tempo.emplace(rate, true, parameters.tempo);
        tempo->setBpmRange(bounds);
        consumers.push_back({[&](std::span<const float> block) { tempo->append(block); },
                             [&] { result.tempo = tempo->estimateGlobal(); }});
    }
    std::optional<KeyAnalyzer> ownKey;
    KeyAnalyzer* key = stream.keyAnalyzer;
    if (key == nullptr) key = &ownKey.emplace(rate, true, parameters.key);
    consumers.push_back({[&](std::span<const float> block) { key->append(block); },
                         [&] { result.key = key->decide(std::numeric_limits<double>::infinity()); }});

    std::optional<LiveAnalysis> live;
    int64_t liveFrames = 0;
    double nextTick = 0;
    if (stream.everySeconds) {
        live.emplace(rate, bounds, parameters);
        nextTick = *stream.everySeconds;
        consumers.push_back({[&](std::span<const float> block) {
                                 live->append(block);
                                 liveFrames += static_cast<int64_t>(block.size());
                                 const double t = static_cast<double>(liveFrames) / rate;
                                 if (t < nextTick) return;
                                 const LiveAnalysis::Reading reading = live->read();
                                 stream.onTick(t, reading.key, reading.tempo);
                                 nextTick += *stream.everySeconds;
                             },
                             [&] { result.liveRestarts = live->key().restarts(); }});
    }

    const int64_t frames = Pipeline(reader, options, stream.maximumFrames).run(consumers);
    result.durationSeconds = static_cast<double>(frames) / rate;
    return result;
}

}  // namespace

FileResult analyzeReader(AudioFileReader& reader, TempoRange range, const FileAnalysisOptions& options,
                         double maximumSeconds) {
    Stream stream;
    stream.range = range;
    stream.analysis = options.analysis;
    const double frames = std::floor(maximumSeconds * reader.sampleRate());
    if (frames < static_cast<double>(stream.maximumFrames))
        stream.maximumFrames = static_cast<int64_t>(frames);
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

void dumpChroma(const std::string& inputPath, const std::string& outputPath,
                const FileAnalysisOptions& options) {
    AudioFileReader reader(inputPath);
    KeyAnalyzer analyzer(reader.sampleRate(), true, engineSettings::parameters().key);
    analyzer.setDumpFrames(true);
    Stream stream;
    stream.withTempo = false;  // the dump is the key analyzer's alone
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

}  // namespace velquin::fileAnalysis
