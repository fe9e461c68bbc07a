#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cmath>
#include <mutex>
#include <string_view>
#include <thread>

#include "analysis/EngineSettings.h"
#include "analysis/Format.h"
#include "capture/AudioSource.h"
#include "fileanalysis/AudioFileReader.h"
#include "fileanalysis/FileAnalysis.h"
#include "support/TestSupport.h"

using velquin::TempoRange;
namespace fileAnalysis = velquin::fileAnalysis;
namespace test = velquin::test;

TEST(FileAnalysis, StereoIsMixedToExactlyTheMonoAndAMissingFileIsAnError) {
    test::TempDir dir;
    auto music = test::clickTrain(96, 48000, 12);
    test::mixInto(music, test::progression({{62, 65, 69}, {58, 62, 65}, {60, 64, 67}}, 48000, 12), 0.5f);
    test::writeWav(dir / "mono.wav", {music}, 48000, true);
    test::writeWav(dir / "stereo.wav", {music, music}, 48000, true);
    const auto mono = fileAnalysis::analyzeFile((dir / "mono.wav").string(), TempoRange::Auto);
    const auto stereo = fileAnalysis::analyzeFile((dir / "stereo.wav").string(), TempoRange::Auto);
    // (x + x) × ½ is exactly x in binary floating point: the stereo file is the mono one.
    EXPECT_EQ(mono.tempo.bpm, stereo.tempo.bpm);
    EXPECT_EQ(mono.key.key, stereo.key.key);
    EXPECT_EQ(mono.key.confidence, stereo.key.confidence);
    EXPECT_NEAR(mono.tempo.bpm, 96, 0.5);

    EXPECT_THROW(fileAnalysis::analyzeFile((dir / "absent.wav").string(), TempoRange::Auto),
                 velquin::AudioFileError);
}

TEST(FileAnalysis, PreciseAnalysisIsItsOwnAndLeavesTheOtherAlone) {
    test::TempDir dir;
    auto music = test::clickTrain(96, 44100, 20);
    test::mixInto(
        music, test::progression({{62, 66, 69}, {67, 71, 74}, {69, 73, 76}, {62, 66, 69}}, 44100, 20), 0.5f);
    test::writeWav(dir / "d.wav", {music, music}, 44100, true);
    const std::string path = (dir / "d.wav").string();
    const auto before = fileAnalysis::analyzeFile(path, TempoRange::Auto);
    fileAnalysis::FileAnalysisOptions precise;
    precise.analysis = fileAnalysis::Analysis::precise;
    const auto threaded = fileAnalysis::analyzeFile(path, TempoRange::Auto, precise);
    precise.execution = fileAnalysis::Execution::sequential;
    const auto sequential = fileAnalysis::analyzeFile(path, TempoRange::Auto, precise);
    const auto after = fileAnalysis::analyzeFile(path, TempoRange::Auto);

    EXPECT_NEAR(threaded.tempo.bpm, 96, 2);
    ASSERT_TRUE(threaded.key.key);
    EXPECT_EQ(*threaded.key.key, (velquin::MusicalKey{2, false}));
    EXPECT_NEAR(threaded.durationSeconds, 20, 0.01);
    EXPECT_EQ(threaded.tempo.bpm, sequential.tempo.bpm);
    EXPECT_EQ(threaded.tempo.confidence, sequential.tempo.confidence);
    EXPECT_EQ(threaded.key.confidence, sequential.key.confidence);
    // The default analysis gives the same bits before and after.
    EXPECT_EQ(before.tempo.bpm, after.tempo.bpm);
    EXPECT_EQ(before.key.confidence, after.key.confidence);

    EXPECT_EQ(fileAnalysis::textName(fileAnalysis::Analysis::precise), "precise");
    EXPECT_EQ(fileAnalysis::analysisFromTextName("specified"), fileAnalysis::Analysis::specified);
    EXPECT_FALSE(fileAnalysis::analysisFromTextName("Precise"));
}

TEST(FileAnalysis, ThreadedAndSequentialAgreeBitForBit) {
    test::TempDir dir;
    auto song = test::clickTrain(120, 48000, 20);
    test::mixInto(song, test::progression({{60, 64, 67}, {65, 69, 72}}, 48000, 20), 0.5f);
    auto other = test::clickTrain(140, 48000, 20);
    test::mixInto(other, test::progression({{66, 69, 73}, {61, 64, 68}}, 48000, 20), 0.5f);
    song.insert(song.end(), other.begin(), other.end());  // a song change for the live pair
    test::writeWav(dir / "change.wav", {song, song}, 48000, true);
    auto long_ = test::progression({{63, 66, 70}, {59, 63, 66}, {66, 70, 73}}, 22050, 120);
    test::mixInto(long_, test::clickTrain(93, 22050, 120), 0.6f);
    test::writeWav(dir / "long.wav", {long_}, 22050);

    // The debug reports too: the same lines in the same order, whichever thread finished first.
    std::mutex debugMutex;
    std::string debug;
    velquin::AnalyzerParameters parameters;
    parameters.tempo.onDebug = parameters.key.onDebug = [&](std::string_view text) {
        std::lock_guard lock(debugMutex);
        debug += text;
    };
    velquin::engineSettings::install(parameters);

    using fileAnalysis::Execution;
    for (const char* name : {"change.wav", "long.wav"}) {
        const std::string path = (dir / name).string();
        std::array<std::string, 2> text;
        for (const Execution execution : {Execution::sequential, Execution::automatic}) {
            fileAnalysis::FileAnalysisOptions options;
            options.execution = execution;
            std::string& out = text[execution == Execution::automatic];
            debug.clear();
            for (const TempoRange range : {TempoRange::Auto, TempoRange::slow}) {
                const auto r = fileAnalysis::analyzeFile(path, range, options);
                out += velquin::format("%a %a %a %a %s|", r.tempo.bpm, r.tempo.confidence, r.key.confidence,
                                       r.key.tuningCents, r.key.key ? r.key.key->shortName() : "-");
            }
            const auto timeline = fileAnalysis::keyTimeline(path, 1.0, options);
            for (const auto& tick : timeline.ticks)
                out += velquin::format("%a %a %a|", tick.seconds, tick.key.confidence, tick.tempo.bpm);
            out += std::to_string(timeline.restarts);
            fileAnalysis::dumpChroma(path, (dir / "chroma.csv").string(), options);
            out += test::readText(dir / "chroma.csv");
            out += debug;
        }
        EXPECT_TRUE(text[0] == text[1]) << name;
    }
    velquin::engineSettings::install({});
}

TEST(FileAnalysis, ReportsProgressAndDurationAndStopsWhenAsked) {
    test::TempDir dir;
    test::writeWav(dir / "three.wav", {test::clickTrain(120, 44100, 3)}, 44100);
    const std::string path = (dir / "three.wav").string();
    std::vector<double> done;
    fileAnalysis::FileAnalysisOptions options;
    options.onProgress = [&](double seconds, double total) {
        done.push_back(seconds);
        EXPECT_NEAR(total, 3.0, 0.01);
    };
    const auto result = fileAnalysis::analyzeFile(path, TempoRange::Auto, options);
    EXPECT_EQ(result.durationSeconds, 3.0);
    ASSERT_EQ(done.size(), 9u);  // 16384-frame chunks
    EXPECT_EQ(done.back(), 3.0);

    for (const auto execution : {fileAnalysis::Execution::sequential, fileAnalysis::Execution::automatic}) {
        std::stop_source stop;
        options.stop = stop.get_token();
        options.execution = execution;
        options.onProgress = [&](double, double) { stop.request_stop(); };
        EXPECT_THROW(fileAnalysis::analyzeFile(path, TempoRange::Auto, options),
                     fileAnalysis::AnalysisCancelled);
    }

    // A stop from another thread ends a ten-minute analysis, every thread joined, within moments (the
    // bound leaves room for a sanitizer build on a loaded machine; the whole analysis takes far longer).
    test::writeWav(dir / "long.wav", {test::clickTrain(120, 44100, 600)}, 44100);
    std::stop_source stop;
    std::chrono::steady_clock::time_point asked;
    std::jthread canceller([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        asked = std::chrono::steady_clock::now();
        stop.request_stop();
    });
    fileAnalysis::FileAnalysisOptions cancelled;
    cancelled.stop = stop.get_token();
    EXPECT_THROW(fileAnalysis::analyzeFile((dir / "long.wav").string(), TempoRange::Auto, cancelled),
                 fileAnalysis::AnalysisCancelled);
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(2));
}
