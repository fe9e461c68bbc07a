#include <gtest/gtest.h>

#include <cmath>

#include "AudioFileReader.h"
#include "AudioSource.h"
#include "TempoService.h"
#include "TestSupport.h"

using velquin::TempoRange;
using velquin::TempoService;
namespace test = velquin::test;

TEST(FileAnalysis, TimelineTicksFallOnChunkBoundaries) {
    test::TempDir dir;
    test::writeWav(dir / "ten.wav", {test::progression({{60, 64, 67}, {65, 69, 72}}, 44100, 10)}, 44100);
    const auto timeline = TempoService::keyTimeline((dir / "ten.wav").string(), 1.0);
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
    const auto mono = TempoService::analyzeFile((dir / "mono.wav").string(), TempoRange::Auto);
    const auto stereo = TempoService::analyzeFile((dir / "stereo.wav").string(), TempoRange::Auto);
    // (x + x) × ½ is exactly x in binary floating point: the stereo file is the mono one.
    EXPECT_EQ(mono.tempo.bpm, stereo.tempo.bpm);
    EXPECT_EQ(mono.key.key, stereo.key.key);
    EXPECT_EQ(mono.key.confidence, stereo.key.confidence);
    EXPECT_NEAR(mono.tempo.bpm, 96, 0.5);

    EXPECT_THROW(TempoService::analyzeFile((dir / "absent.wav").string(), TempoRange::Auto), velquin::AudioFileError);
}
