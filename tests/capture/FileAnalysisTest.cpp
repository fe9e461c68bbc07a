#include <gtest/gtest.h>

#include <cmath>

#include "AudioFileReader.h"
#include "AudioSource.h"
#include "FileAnalysis.h"
#include "TestSupport.h"

using velquin::TempoRange;
namespace FileAnalysis = velquin::FileAnalysis;
namespace test = velquin::test;

TEST(FileAnalysis, TimelineTicksFallOnChunkBoundaries) {
    test::TempDir dir;
    test::writeWav(dir / "ten.wav", {test::progression({{60, 64, 67}, {65, 69, 72}}, 44100, 10)}, 44100);
    const auto timeline = FileAnalysis::keyTimeline((dir / "ten.wav").string(), 1.0);
    // 16384-frame chunks of 0.3715 s: the first boundary at or after each whole second.
    ASSERT_EQ(timeline.ticks.size(), 10u);
    EXPECT_NEAR(timeline.ticks[0].seconds, 3 * 16384 / 44100.0, 1e-12);
    EXPECT_NEAR(timeline.ticks[1].seconds, 6 * 16384 / 44100.0, 1e-12);
    EXPECT_NEAR(timeline.ticks.back().seconds, 10.0, 1e-12);  // the last, short chunk
    EXPECT_EQ(timeline.restarts, 0);
    ASSERT_TRUE(timeline.final.key);
    // The live pair needs four seconds of frames before it names a key.
    EXPECT_FALSE(timeline.ticks[2].key.key);
    EXPECT_TRUE(timeline.ticks.back().key.key);
}

TEST(FileAnalysis, StreamingMatchesOneWholeAnalysisAndNeedsAFile) {
    test::TempDir dir;
    auto music = test::clickTrain(96, 48000, 12);
    test::mixInto(music, test::progression({{62, 65, 69}, {58, 62, 65}, {60, 64, 67}}, 48000, 12), 0.5f);
    test::writeWav(dir / "mono.wav", {music}, 48000, true);
    test::writeWav(dir / "stereo.wav", {music, music}, 48000, true);
    const auto mono = FileAnalysis::analyzeFile((dir / "mono.wav").string(), TempoRange::Auto);
    const auto stereo = FileAnalysis::analyzeFile((dir / "stereo.wav").string(), TempoRange::Auto);
    // (x + x) × ½ is exactly x in binary floating point: the stereo file is the mono one.
    EXPECT_EQ(mono.tempo.bpm, stereo.tempo.bpm);
    EXPECT_EQ(mono.key.key, stereo.key.key);
    EXPECT_EQ(mono.key.confidence, stereo.key.confidence);
    EXPECT_NEAR(mono.tempo.bpm, 96, 0.5);

    EXPECT_THROW(FileAnalysis::analyzeFile((dir / "absent.wav").string(), TempoRange::Auto), velquin::AudioFileError);
}

TEST(FileAnalysis, ReportsProgressAndDurationAndStopsWhenAsked) {
    test::TempDir dir;
    test::writeWav(dir / "three.wav", {test::clickTrain(120, 44100, 3)}, 44100);
    const std::string path = (dir / "three.wav").string();
    std::vector<double> done;
    FileAnalysis::FileAnalysisOptions options;
    options.onProgress = [&](double seconds, double total) {
        done.push_back(seconds);
        EXPECT_NEAR(total, 3.0, 0.01);
    };
    const auto result = FileAnalysis::analyzeFile(path, TempoRange::Auto, options);
    EXPECT_EQ(result.durationSeconds, 3.0);
    ASSERT_EQ(done.size(), 9u);  // 16384-frame chunks
    EXPECT_EQ(done.back(), 3.0);

    std::stop_source stop;
    options.stop = stop.get_token();
    options.onProgress = [&](double, double) { stop.request_stop(); };
    EXPECT_THROW(FileAnalysis::analyzeFile(path, TempoRange::Auto, options), FileAnalysis::AnalysisCancelled);
}
