// Engine cost on 60 s of synthetic music: offline throughput (tempo + key together at 44.1 kHz, one
// thread) and one live tick at 48 kHz (0.12 s fed to the live pair with a full history, then its
// reading).
#include <benchmark/benchmark.h>

#include <cmath>
#include <limits>
#include <span>
#include <vector>

#include "analysis/KeyAnalyzer.h"
#include "analysis/LiveAnalysis.h"
#include "analysis/TempoAnalyzer.h"
#include "support/TestSupport.h"

namespace {

std::vector<float> music(double rate) {
    // i–VI–III–VII in E♭ minor at 93 BPM with clicks on the beats.
    auto out = velquin::test::progression({{63, 66, 70}, {59, 63, 66}, {66, 70, 73}, {61, 65, 68}}, rate,
                                          60.0, 60.0 / 93 * 4);
    velquin::test::mixInto(out, velquin::test::clickTrain(93, rate, 60.0), 0.6f);
    return out;
}

void BM_OfflineEngine(benchmark::State& state) {
    const double rate = 44100;
    const auto samples = music(rate);
    for (auto _ : state) {
        velquin::TempoAnalyzer tempo(rate, true);
        velquin::KeyAnalyzer key(rate, true);
        for (size_t i = 0; i < samples.size(); i += 16384) {
            const auto chunk = std::span(samples).subspan(i, std::min<size_t>(16384, samples.size() - i));
            tempo.append(chunk);
            key.append(chunk);
        }
        benchmark::DoNotOptimize(tempo.estimateGlobal());
        benchmark::DoNotOptimize(key.decide(std::numeric_limits<double>::infinity()));
    }
    // Seconds of audio analysed per second of wall time.
    state.counters["xRealTime"] =
        benchmark::Counter(60.0 * double(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_OfflineEngine)->Unit(benchmark::kMillisecond)->MinTime(3.0);

void BM_LiveTick(benchmark::State& state) {
    const double rate = 48000;
    const auto samples = music(rate);
    velquin::LiveAnalysis live(rate, velquin::bounds(velquin::TempoRange::Auto));
    const size_t tick = 5760;  // 0.12 s
    size_t position = 0;
    auto feed = [&] {
        if (position + tick > samples.size()) position = 0;
        const auto block = std::span(samples).subspan(position, tick);
        position += tick;
        live.append(block);
        benchmark::DoNotOptimize(live.read());
    };
    for (int i = 0; i < 500; ++i) feed();  // a full 45 s key history and 8 s onset history
    for (auto _ : state) feed();
}
BENCHMARK(BM_LiveTick)->Unit(benchmark::kMicrosecond)->MinTime(3.0);

}  // namespace

BENCHMARK_MAIN();
