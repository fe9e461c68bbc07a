#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "TempoAnalyzer.h"
#include "TestSupport.h"

using velquin::BPMBounds;
using velquin::TempoAnalyzer;
using velquin::TempoEstimate;
using velquin::TempoRange;

namespace {

// An onset curve at 100 values per second with a pulse every 6000/bpm frames.
std::vector<float> pulseCurve(double bpm, double seconds, double phaseFrames = 0) {
    std::vector<float> curve(static_cast<size_t>(seconds * 100), 0.05f);
    const double period = 6000.0 / bpm;
    for (double t = phaseFrames; t < double(curve.size()); t += period) {
        const auto i = static_cast<size_t>(std::lround(t));
        if (i < curve.size()) curve[i] = 1.0f;
    }
    return curve;
}

// Feeds a curve in 0.12 s ticks (12 values), estimating after each, like the live service.
TempoEstimate feedTicks(TempoAnalyzer& analyzer, const std::vector<float>& curve, double level = 0.1,
                        std::vector<double>* shown = nullptr) {
    TempoEstimate last;
    for (size_t i = 0; i + 12 <= curve.size(); i += 12) {
        analyzer.appendOnsetValuesForTesting(std::span(curve).subspan(i, 12), level);
        last = analyzer.estimate();
        if (shown) shown->push_back(last.bpm);
    }
    return last;
}

TempoEstimate analyzeWhole(const std::vector<float>& samples, double rate,
                           TempoRange range = TempoRange::Auto) {
    TempoAnalyzer analyzer(rate, true);
    analyzer.setBpmRange(velquin::bounds(range));
    for (size_t i = 0; i < samples.size(); i += 16384)
        analyzer.append(std::span(samples).subspan(i, std::min<size_t>(16384, samples.size() - i)));
    return analyzer.estimateGlobal();
}

}  // namespace

TEST(TempoAnalyzer, ClickTrainsGiveTheirTempoAtEveryRate) {
    // Tolerance: 0.5 BPM is well under one lag step at 100 onset values per second.
    for (double rate : {22050.0, 44100.0, 48000.0, 96000.0}) {
        for (double bpm : {97.0, 120.0, 140.0}) {
            const auto est = analyzeWhole(velquin::test::clickTrain(bpm, rate, 20), rate);
            EXPECT_NEAR(est.bpm, bpm, 0.5) << rate << " Hz, " << bpm << " BPM";
            EXPECT_GT(est.confidence, 0.8) << rate;
        }
    }
    // The range picks the octave.
    const auto clicks = velquin::test::clickTrain(120, 44100, 20);
    EXPECT_NEAR(analyzeWhole(clicks, 44100, TempoRange::verySlow).bpm, 60.0, 0.5);
    EXPECT_NEAR(analyzeWhole(clicks, 44100, TempoRange::fast).bpm, 120.0, 0.5);

    // Too little audio, or silence: no tempo, but the level is reported.
    EXPECT_EQ(analyzeWhole(velquin::test::clickTrain(120, 44100, 2.5), 44100).bpm, 0.0);
    const auto quiet = analyzeWhole(std::vector<float>(44100 * 10, 0.001f), 44100);
    EXPECT_EQ(quiet.bpm, 0.0);
    EXPECT_NEAR(quiet.level, 0.001, 1e-4);
}

TEST(TempoAnalyzer, LiveClicksLockAtOnceAndAgree) {
    TempoAnalyzer a(44100, false);
    const auto clicks = velquin::test::clickTrain(120, 44100, 10);
    TempoEstimate est;
    int estimatesWithTempo = 0;
    for (size_t i = 0; i < clicks.size(); i += 5292) {
        a.append(std::span(clicks).subspan(i, std::min<size_t>(5292, clicks.size() - i)));
        est = a.estimate();
        if (est.bpm > 0) {
            ++estimatesWithTempo;
            EXPECT_NEAR(est.bpm, 120.0, 0.5);
        } else {
            EXPECT_LT(double(i + 5292), 3.1 * 44100);  // nothing before 3 s of history
        }
    }
    EXPECT_GT(estimatesWithTempo, 40);
    EXPECT_GT(est.confidence, 0.95);
    EXPECT_EQ(a.regimeChanges(), 0);
}

TEST(TempoAnalyzer, LockHoldsBlendsAndSwitches) {
    // Unrelated tempo: waits 2 s of onset frames after the median moves, then counts a regime change.
    {
        TempoAnalyzer a(48000, false);
        feedTicks(a, pulseCurve(120, 8));
        EXPECT_NEAR(a.lockedBPM(), 120, 0.6);
        std::vector<double> shown;
        feedTicks(a, pulseCurve(97, 10), 0.1, &shown);
        EXPECT_NEAR(a.lockedBPM(), 97, 0.6);
        EXPECT_EQ(a.regimeChanges(), 1);
        // The first ticks of the new curve still show the lock.
        EXPECT_NEAR(shown.front(), 120, 0.6);
        size_t firstSwitched = 0;
        while (firstSwitched < shown.size() && std::abs(shown[firstSwitched] - 97) > 1) ++firstSwitched;
        EXPECT_GE(firstSwitched, 2.0 / 0.12) << "switched before the 2 s hold";
    }
    // Within 4 %: never switches, the lock follows by a fifth per estimate.
    {
        TempoAnalyzer a(48000, false);
        feedTicks(a, pulseCurve(120, 8));
        const double before = a.lockedBPM();
        std::vector<double> shown;
        feedTicks(a, pulseCurve(123, 12), 0.1, &shown);
        EXPECT_EQ(a.regimeChanges(), 0);
        EXPECT_GT(a.lockedBPM(), before + 2);
        EXPECT_EQ(a.candidateBPM(), 0.0);
        EXPECT_TRUE(std::all_of(shown.begin(), shown.end(), [](double v) { return v > 119.5 && v < 123.5; }));
    }
    // Two thirds of the tempo: a simple ratio, so no regime change; its support is far stronger
    // than the locked tempo's, so the short hold applies (2 s of onset frames after the candidate).
    {
        TempoAnalyzer a(48000, false);
        feedTicks(a, pulseCurve(120, 8));
        const auto curve = pulseCurve(80, 12);
        int64_t candidateFrame = -1, switchFrame = -1;
        for (size_t i = 0; i + 12 <= curve.size(); i += 12) {
            a.appendOnsetValuesForTesting(std::span(curve).subspan(i, 12), 0.1);
            const auto est = a.estimate();
            if (candidateFrame < 0 && std::abs(a.candidateBPM() - 80) < 2) candidateFrame = a.framesSeen();
            if (switchFrame < 0 && std::abs(est.bpm - 80) < 2) switchFrame = a.framesSeen();
        }
        ASSERT_GT(candidateFrame, 0);
        ASSERT_GT(switchFrame, 0);
        EXPECT_GE(switchFrame - candidateFrame, 200);
        EXPECT_LE(switchFrame - candidateFrame, 212);
        EXPECT_EQ(a.regimeChanges(), 0);
    }
}

TEST(TempoAnalyzer, SilenceKeepsTheLockAndUnlockForgetsIt) {
    TempoAnalyzer a(48000, false);
    feedTicks(a, pulseCurve(120, 8));
    ASSERT_GT(a.lockedBPM(), 0);
    const auto silent = feedTicks(a, pulseCurve(120, 1), 0.002);  // exactly the floor is silence
    EXPECT_EQ(silent.bpm, 0.0);
    EXPECT_GT(a.lockedBPM(), 0);

    a.unlock();
    EXPECT_EQ(a.lockedBPM(), 0.0);
    const auto again = feedTicks(a, pulseCurve(120, 0.12));
    EXPECT_NEAR(again.bpm, 120, 0.6);  // the first median locks at once

    // Under 3 s of history: nothing.
    TempoAnalyzer fresh(48000, false);
    EXPECT_EQ(feedTicks(fresh, pulseCurve(120, 2.9)).bpm, 0.0);
}

TEST(TempoRange, RawValuesAndBounds) {
    EXPECT_EQ(velquin::tempoRangeFromTextName("verySlow"), TempoRange::verySlow);
    EXPECT_EQ(velquin::tempoRangeFromTextName("Slow"), std::nullopt);
    EXPECT_EQ(velquin::textName(TempoRange::Auto), "auto");
    EXPECT_EQ(velquin::bounds(TempoRange::standard), (BPMBounds{85, 170}));
}
