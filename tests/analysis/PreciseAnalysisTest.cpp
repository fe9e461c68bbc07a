#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "analysis/KeyAnalyzer.h"
#include "analysis/OnsetNovelty.h"
#include "analysis/PreciseKey.h"
#include "analysis/PreciseTempo.h"
#include "support/TestSupport.h"

using velquin::BPMBounds;
using velquin::KeyAnalyzer;
using velquin::KeyEstimate;
using velquin::MusicalKey;
using velquin::OnsetNovelty;
using velquin::PreciseTempoAnalyzer;
using velquin::TempoEstimate;

namespace {

constexpr BPMBounds autoRange{60, 200};

// A drum kit from first principles: a kick (pitch-falling sine), a snare (noise with a 200 Hz body) and
// a closed hi-hat (short bright noise), each a decaying burst at `at` seconds.
class Kit {
  public:
    Kit(double sampleRate, double seconds)
        : rate_(sampleRate), out_(static_cast<size_t>(seconds * sampleRate), 0.0f) {}

    void kick(double at) {
        burst(at, 0.25, 0.9, [&](double t) {
            return std::sin(2 * std::numbers::pi * (50 * t + 60 * (1 - std::exp(-t / 0.03)) * 0.03));
        });
    }
    void snare(double at) {
        burst(at, 0.15, 0.6,
              [&](double t) { return 0.5 * std::sin(2 * std::numbers::pi * 200 * t) + noise(); });
    }
    void hat(double at) {
        burst(at, 0.04, 0.25, [&](double) { return noise() - previous_; });
    }
    std::vector<float>& samples() { return out_; }

  private:
    template <typename Wave>
    void burst(double at, double decaySeconds, double gain, Wave wave) {
        const auto start = static_cast<size_t>(std::llround(at * rate_));
        const auto length = static_cast<size_t>(5 * decaySeconds * rate_);
        for (size_t i = 0; i < length && start + i < out_.size(); ++i) {
            const double t = static_cast<double>(i) / rate_;
            out_[start + i] += static_cast<float>(gain * std::exp(-t / decaySeconds) * wave(t));
        }
    }
    // Deterministic white noise in −1 … 1.
    double noise() {
        state_ = state_ * 6364136223846793005ULL + 1442695040888963407ULL;
        previous_ = static_cast<double>(state_ >> 11) / static_cast<double>(1ULL << 53) * 2 - 1;
        return previous_;
    }

    double rate_;
    std::vector<float> out_;
    uint64_t state_ = 42;
    double previous_ = 0;
};

// A rock beat: kick on 1 and 3, snare on 2 and 4, hi-hat on every eighth.
std::vector<float> rockBeat(double bpm, double sampleRate, double seconds) {
    Kit kit(sampleRate, seconds);
    const double beat = 60.0 / bpm;
    for (int64_t i = 0; static_cast<double>(i) * beat < seconds; ++i) {
        const double t = static_cast<double>(i) * beat;
        if (i % 2 == 0)
            kit.kick(t);
        else
            kit.snare(t);
        kit.hat(t);
        kit.hat(t + beat / 2);
    }
    return kit.samples();
}

TempoEstimate preciseTempo(const std::vector<float>& samples, double sampleRate) {
    PreciseTempoAnalyzer analyzer(sampleRate);
    for (size_t i = 0; i < samples.size(); i += 16384)
        analyzer.append(std::span(samples).subspan(i, std::min<size_t>(16384, samples.size() - i)));
    return analyzer.estimate(autoRange);
}

bool within(double estimate, double reference, double tolerance = 0.02) {
    return std::abs(estimate - reference) <= tolerance * reference;
}

TEST(PreciseTempo, ReadsDrumPatternsAtTheBeatOrHalfOfItNeverADottedBeat) {
    // Up to the prior's centre the beat itself; above it a fast beat whose kick falls every other beat
    // may be read at half (an octave, which listeners also tap), but never at ⅔ or 4/3, the dotted-beat
    // readings that fast produced music drew from the live engine.
    for (double bpm : {72.0, 96.0, 128.0, 150.0, 174.0, 190.0}) {
        const TempoEstimate e = preciseTempo(rockBeat(bpm, 44100, 30), 44100);
        if (bpm < 130)
            EXPECT_TRUE(within(e.bpm, bpm)) << bpm << " BPM read as " << e.bpm;
        else
            EXPECT_TRUE(within(e.bpm, bpm) || within(e.bpm, bpm / 2)) << bpm << " BPM read as " << e.bpm;
        EXPECT_FALSE(within(e.bpm, bpm * 2 / 3, 0.04) || within(e.bpm, bpm * 4 / 3, 0.04)) << bpm;
        EXPECT_GT(e.confidence, 0.5) << bpm;
        EXPECT_LE(e.confidence, 1.0) << bpm;
    }
}

// A bar of syncopated kicks (`figure`, in beats), snare on 2 and 4, sixteenth hi-hats accented on the
// beat: a dotted figure recurs more often than the beat, and only the bar, repeating every four beats,
// tells the beat from it.
std::vector<float> syncopatedBars(double bpm, double sampleRate, double seconds,
                                  std::span<const double> figure) {
    Kit kit(sampleRate, seconds);
    const double beat = 60.0 / bpm;
    for (int64_t bar = 0; static_cast<double>(bar) * 4 * beat < seconds; ++bar) {
        const double start = static_cast<double>(bar) * 4 * beat;
        for (const double at : figure) kit.kick(start + at * beat);
        kit.snare(start + beat);
        kit.snare(start + 3 * beat);
        for (int sixteenth = 0; sixteenth < 16; ++sixteenth) {
            kit.hat(start + sixteenth * beat / 4);
            if (sixteenth % 4 == 0) kit.hat(start + sixteenth * beat / 4);
        }
    }
    return kit.samples();
}

TEST(PreciseTempo, TheBarTellsTheBeatFromADottedFigure) {
    // The 3-3-2 of hip-hop, the same twice, and a run of dotted eighths with a pickup.
    const std::vector<std::vector<double>> figures{{0.0, 0.75, 1.5, 1.75, 2.5, 3.25},
                                                   {0.0, 0.75, 1.5, 2.0, 2.75, 3.5},
                                                   {0.0, 0.75, 1.5, 2.25, 2.5, 3.25}};
    PreciseTempoAnalyzer::Parameters withoutBar;
    withoutBar.barContrast = 1e9;
    const auto read = [](const std::vector<float>& samples, const PreciseTempoAnalyzer::Parameters& p) {
        PreciseTempoAnalyzer analyzer(44100, p);
        analyzer.append(samples);
        return analyzer.estimate(autoRange).bpm;
    };
    for (const auto& figure : figures) {
        for (const double bpm : {75.0, 85.0, 95.0, 105.0}) {
            const std::vector<float> samples = syncopatedBars(bpm, 44100, 30, figure);
            const double withBar = read(samples, {});
            EXPECT_TRUE(within(withBar, bpm)) << bpm << " BPM read as " << withBar;
            // Where the dotted run outweighs the beat, the check is what names the beat.
            if (&figure == &figures.back() && bpm < 90) {
                EXPECT_TRUE(within(read(samples, withoutBar), bpm * 4 / 3)) << bpm;
            }
        }
    }
}

TEST(PreciseTempo, ClickTracksAreReadAtTheirTempoOrAnOctaveAndRateDoesNotMatter) {
    for (double bpm : {60.0, 100.0, 140.0, 180.0}) {
        for (double rate : {44100.0, 48000.0}) {
            const double read = preciseTempo(velquin::test::clickTrain(bpm, rate, 20), rate).bpm;
            EXPECT_TRUE(within(read, bpm) || within(read, 2 * bpm) || within(read, bpm / 2))
                << bpm << " BPM at " << rate << " Hz read as " << read;
        }
    }
    // A uniform click has no stronger beat than its own: the mid-range answer.
    EXPECT_TRUE(within(preciseTempo(velquin::test::clickTrain(120, 44100, 20), 44100).bpm, 120));
}

TEST(PreciseTempo, NoTempoFromSilenceOrTooLittleAudio) {
    EXPECT_EQ(preciseTempo(std::vector<float>(44100 * 10, 0.0f), 44100).bpm, 0);
    EXPECT_EQ(preciseTempo(rockBeat(120, 44100, 2), 44100).bpm, 0);
    EXPECT_EQ(preciseTempo({}, 44100).bpm, 0);
    // A range that excludes nothing sensible still answers inside it.
    PreciseTempoAnalyzer analyzer(44100);
    const auto beat = rockBeat(120, 44100, 20);
    analyzer.append(beat);
    const double slow = analyzer.estimate({40, 90}).bpm;
    EXPECT_TRUE(within(slow, 60)) << slow;
}

TEST(PreciseTempo, TrackedBeatsFollowADriftingTempoAndBridgeAMissingOnset) {
    // Onsets whose interval drifts from 50 to 60 frames (a slowing drummer), with one left out and a
    // weaker off-beat between each pair: the beats land on the onsets, one in the gap, none off-beat.
    std::vector<double> onsets(3000, 0.0);
    std::vector<size_t> truth;
    for (double at = 20, interval = 50; at < 2950; at += interval, interval = std::min(60.0, interval + 0.2))
        truth.push_back(static_cast<size_t>(at));
    for (size_t i = 0; i < truth.size(); ++i) {
        if (i != 20) onsets[truth[i]] = 1.0;
        if (i + 1 < truth.size()) onsets[(truth[i] + truth[i + 1]) / 2] = 0.4;
    }
    const std::vector<size_t> beats = PreciseTempoAnalyzer::trackBeats(onsets, 55.0, 100.0);
    ASSERT_EQ(beats.size(), truth.size());
    for (size_t i = 0; i < truth.size(); ++i) {
        if (i == 20)
            EXPECT_NEAR(static_cast<double>(beats[i]), static_cast<double>(truth[i]), 6.0);
        else
            EXPECT_EQ(beats[i], truth[i]) << "beat " << i;
    }
    // Nothing to follow, or no sensible period: no beats, and no reading past the curve's end.
    EXPECT_TRUE(PreciseTempoAnalyzer::trackBeats({}, 50.0, 100.0).empty());
    EXPECT_TRUE(PreciseTempoAnalyzer::trackBeats(onsets, 0.5, 100.0).empty());
    const std::vector<double> shortCurve(30, 0.0);
    for (const size_t b : PreciseTempoAnalyzer::trackBeats(shortCurve, 55.0, 100.0)) EXPECT_LT(b, 30u);
}

TEST(PreciseTempo, DefersToACertainOtherReadingOnlyOffTheOctave) {
    const PreciseTempoAnalyzer::Parameters p;
    const TempoEstimate own{100, 0.8, 0.1};
    const auto named = [&](TempoEstimate other) { return PreciseTempoAnalyzer::deferred(own, other, p); };
    // Certain and 3/2 or no simple ratio away: the other's tempo, with this analysis's confidence.
    EXPECT_EQ(named({150, 1.0, 0}).bpm, 150);
    EXPECT_EQ(named({150, 1.0, 0}).confidence, 0.8);
    EXPECT_EQ(named({118, 1.0, 0}).bpm, 118);
    // An octave (or near it, or the same tempo) away, or less than certain: this analysis's own.
    for (const double bpm : {200.0, 50.0, 51.5, 102.0, 400.0})
        EXPECT_EQ(named({bpm, 1.0, 0}).bpm, 100) << bpm;
    EXPECT_EQ(named({150, 0.95, 0}).bpm, 100);
    EXPECT_EQ(named({}).bpm, 100);
    // No rhythmic evidence here: no tempo, whatever the other says.
    EXPECT_EQ(PreciseTempoAnalyzer::deferred({}, {150, 1.0, 0}, p).bpm, 0);
}

// Signals without music: a DC offset, a steady tone (with an offset under it), and white noise loud and
// quiet, `seconds` long at 44.1 kHz.
std::vector<std::vector<float>> withoutMusic(double seconds) {
    const auto n = static_cast<size_t>(seconds * 44100);
    std::vector<std::vector<float>> out(5, std::vector<float>(n));
    uint64_t state = 7;
    for (size_t i = 0; i < n; ++i) {
        const double t = static_cast<double>(i) / 44100;
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        const double noise = static_cast<double>(state >> 11) / static_cast<double>(1ULL << 53) * 2 - 1;
        out[0][i] = 0.3f;
        out[1][i] = static_cast<float>(0.5 * std::sin(2 * std::numbers::pi * 440 * t));
        out[2][i] = static_cast<float>(0.3 + 0.01 * std::sin(2 * std::numbers::pi * 261.63 * t));
        out[3][i] = static_cast<float>(0.5 * noise);
        out[4][i] = static_cast<float>(0.01 * noise);
    }
    return out;
}

TEST(PreciseTempo, NoTempoWithoutOnsetsOrPeriodicity) {
    // A steady tone's frame-to-frame ripple and noise's unperiodic flux are no beat: no tempo, so that
    // no BPM tag is written for them.
    const auto signals = withoutMusic(30);
    for (size_t i = 0; i < signals.size(); ++i) {
        const TempoEstimate e = preciseTempo(signals[i], 44100);
        EXPECT_EQ(e.bpm, 0) << "signal " << i << " read as " << e.bpm << " BPM";
        EXPECT_EQ(e.confidence, 0) << i;
    }
    // The same beat under that noise keeps its tempo and its confidence.
    auto beat = rockBeat(96, 44100, 30);
    for (size_t i = 0; i < beat.size(); ++i) beat[i] += 0.5f * signals[4][i];
    const TempoEstimate e = preciseTempo(beat, 44100);
    EXPECT_TRUE(within(e.bpm, 96)) << e.bpm;
    EXPECT_GT(e.confidence, 0.5);
}

TEST(OnsetNovelty, KeepsABoundedCurveOfOneValuePerHopInEachRegister) {
    velquin::OnsetNoveltyParameters p;
    p.keptSeconds = 5;
    OnsetNovelty novelty(44100, p);
    const auto beat = rockBeat(120, 44100, 12);
    for (size_t i = 0; i < beat.size(); i += 4096)
        novelty.append(std::span(beat).subspan(i, std::min<size_t>(4096, beat.size() - i)));
    EXPECT_NEAR(novelty.framesPerSecond(), 100, 0.3);
    EXPECT_NEAR(static_cast<double>(novelty.framesSeen()), 12 * 100, 10);
    for (auto r : {OnsetNovelty::low, OnsetNovelty::mid, OnsetNovelty::high})
        EXPECT_EQ(novelty.curve(r).size(), 500u);
    // Kicks land in the low register, hi-hats in the high one: both curves peak on the beat grid.
    const auto low = novelty.curve(OnsetNovelty::low);
    const auto high = novelty.curve(OnsetNovelty::high);
    double lowMax = 0, highMax = 0;
    for (float v : low) lowMax = std::max(lowMax, double(v));
    for (float v : high) highMax = std::max(highMax, double(v));
    EXPECT_GT(lowMax, 1.0);
    EXPECT_GT(highMax, 1.0);
}

KeyEstimate preciseKey(const std::vector<float>& samples, double sampleRate = 44100) {
    KeyAnalyzer analyzer(sampleRate, true);
    analyzer.setDumpFrames(true);
    analyzer.append(samples);
    const KeyEstimate base = analyzer.decide(std::numeric_limits<double>::infinity());
    return velquin::preciseKey::decide(analyzer.dumped(), base);
}

TEST(PreciseKey, CadencesScalesAndDetunedPlayingName) {
    using velquin::test::progression;
    // I–IV–V–I in C major; i–iv–V–i in A minor (harmonic-minor dominant); I–vi–IV–V in F♯ major.
    const KeyEstimate c =
        preciseKey(progression({{60, 64, 67}, {65, 69, 72}, {67, 71, 74}, {60, 64, 67}}, 44100, 24));
    ASSERT_TRUE(c.key);
    EXPECT_EQ(*c.key, (MusicalKey{0, false}));
    const KeyEstimate am =
        preciseKey(progression({{57, 60, 64}, {62, 65, 69}, {64, 68, 71}, {57, 60, 64}}, 44100, 24));
    ASSERT_TRUE(am.key);
    EXPECT_EQ(*am.key, (MusicalKey{9, true}));
    const KeyEstimate fs =
        preciseKey(progression({{66, 70, 73}, {63, 66, 70}, {71, 75, 78}, {73, 77, 80}}, 44100, 24));
    ASSERT_TRUE(fs.key);
    EXPECT_EQ(*fs.key, (MusicalKey{6, false}));
    // A D major scale, one note at a time.
    const KeyEstimate d =
        preciseKey(progression({{62}, {64}, {66}, {67}, {69}, {71}, {73}, {74}}, 44100, 24, 0.75));
    ASSERT_TRUE(d.key);
    EXPECT_EQ(*d.key, (MusicalKey{2, false}));
    // Played 35 cents sharp: the tuning follows and the key stays.
    const KeyEstimate sharp = preciseKey(
        progression({{60, 64, 67}, {65, 69, 72}, {67, 71, 74}, {60, 64, 67}}, 48000, 24, 2.0, 35), 48000);
    ASSERT_TRUE(sharp.key);
    EXPECT_EQ(*sharp.key, (MusicalKey{0, false}));
    EXPECT_NEAR(sharp.tuningCents, 35, 8);
    for (const KeyEstimate& e : {c, am, fs, d, sharp}) {
        EXPECT_GT(e.confidence, 0.5);
        EXPECT_LE(e.confidence, 1.0);
    }
}

TEST(PreciseKey, NoConfidentKeyWithoutTonalEvidence) {
    // One pitch class or none stands out: whatever key is named, its confidence stays far below the
    // 35 % under which no key tag is written.
    for (const auto& signal : withoutMusic(20)) {
        const KeyEstimate e = preciseKey(signal);
        EXPECT_LT(e.confidence, 0.1) << (e.key ? e.key->shortName() : std::string("no key"));
    }
    // A chord progression over the same noise keeps its key and confidence.
    auto music =
        velquin::test::progression({{60, 64, 67}, {65, 69, 72}, {67, 71, 74}, {60, 64, 67}}, 44100, 20);
    const auto noise = withoutMusic(20)[4];
    for (size_t i = 0; i < music.size() && i < noise.size(); ++i) music[i] += noise[i];
    const KeyEstimate c = preciseKey(music);
    ASSERT_TRUE(c.key);
    EXPECT_EQ(*c.key, (MusicalKey{0, false}));
    EXPECT_GT(c.confidence, 0.5);
}

// The key `scores` rank first for one frame of these pitch-class weights with the bass on C.
MusicalKey firstRanked(const std::vector<std::pair<int, double>>& weights) {
    KeyAnalyzer::DumpRow row;
    for (const auto& [pc, weight] : weights) row.chroma[static_cast<size_t>(pc)] = weight;
    row.bass = 0;
    const std::vector<KeyAnalyzer::DumpRow> frames{row};
    const auto scores = velquin::preciseKey::scores(frames, {});
    return MusicalKey::all()[static_cast<size_t>(std::max_element(scores.begin(), scores.end()) -
                                                 scores.begin())];
}

TEST(PreciseKey, TheTonicsThirdDecidesTheMode) {
    // C melodic minor: its raised sixth and seventh are C major's, and the profiles alone rank C major
    // first; the minor third, stronger than the major one, makes it C minor.
    EXPECT_EQ(firstRanked({{0, 3}, {2, 1}, {3, 1}, {4, 0.9}, {5, 1}, {7, 2.5}, {9, 1.5}, {11, 1.5}}),
              (MusicalKey{0, true}));
    // The same with the major third the stronger: C major.
    EXPECT_EQ(firstRanked({{0, 3}, {2, 1}, {3, 0.9}, {4, 1}, {5, 1}, {7, 2.5}, {9, 1.5}, {11, 1.5}}),
              (MusicalKey{0, false}));
}

TEST(PreciseKey, LevelThirdsTakeTheOtherReadingsModeForTheSameTonic) {
    // C melodic minor with its two thirds level: the profiles rank C major first.
    KeyAnalyzer::DumpRow row;
    for (const auto& [pc, weight] : std::vector<std::pair<int, double>>{
             {0, 3}, {2, 1}, {3, 1}, {4, 1}, {5, 1}, {7, 2.5}, {9, 1.5}, {11, 1.5}})
        row.chroma[static_cast<size_t>(pc)] = weight;
    row.bass = 0;
    const auto first = [&](std::optional<MusicalKey> other) {
        const std::vector<KeyAnalyzer::DumpRow> frames{row};
        const auto scores = velquin::preciseKey::scores(frames, {}, other);
        return MusicalKey::all()[static_cast<size_t>(std::max_element(scores.begin(), scores.end()) -
                                                     scores.begin())];
    };
    EXPECT_EQ(first(std::nullopt), (MusicalKey{0, false}));
    EXPECT_EQ(first(MusicalKey{0, true}), (MusicalKey{0, true}));
    EXPECT_EQ(first(MusicalKey{0, false}), (MusicalKey{0, false}));
    // Another tonic's reading says nothing about this one's mode.
    EXPECT_EQ(first(MusicalKey{9, true}), (MusicalKey{0, false}));
    // Thirds 5 % apart are still level; a clearly stronger third decides whatever the other says.
    row.chroma[3] = 0.95;
    EXPECT_EQ(first(MusicalKey{0, true}), (MusicalKey{0, true}));
    row.chroma[3] = 1.5;
    EXPECT_EQ(first(MusicalKey{0, false}), (MusicalKey{0, true}));
}

TEST(PreciseKey, NothingWithoutABaseKeyAndScoresRankTheKeys) {
    KeyAnalyzer silent(44100, true);
    silent.setDumpFrames(true);
    silent.append(std::vector<float>(44100 * 5, 0.0f));
    const KeyEstimate none = velquin::preciseKey::decide(silent.dumped(), KeyEstimate::unknown);
    EXPECT_FALSE(none.key);
    EXPECT_EQ(none.confidence, 0);

    // A single frame of a pure C major scale: C major first, A minor (its relative) close.
    KeyAnalyzer::DumpRow row;
    for (int pc : {0, 2, 4, 5, 7, 9, 11})
        row.chroma[static_cast<size_t>(pc)] = pc == 0 || pc == 7 ? 2.0 : 1.0;
    row.bass = 0;
    const std::vector<KeyAnalyzer::DumpRow> frames{row};
    const auto scores = velquin::preciseKey::scores(frames, {});
    const auto& keys = MusicalKey::all();
    size_t best = 0;
    for (size_t k = 0; k < scores.size(); ++k)
        if (scores[k] > scores[best]) best = k;
    EXPECT_EQ(keys[best], (MusicalKey{0, false}));
}

}  // namespace
