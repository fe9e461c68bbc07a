// The decoder against tiny files made at test time by the ffmpeg command-line tool from WAVs we write.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <unistd.h>

#include "AudioFileReader.h"
#include "Format.h"
#include "TestSupport.h"

namespace velquin {
namespace {

namespace fs = std::filesystem;
using Channels = std::vector<std::vector<float>>;

constexpr int rate = 44100;

Channels decodeAll(AudioFileReader& reader) {
    Channels out(static_cast<size_t>(reader.channelCount()));
    while (const int64_t n = reader.read()) {
        for (int k = 0; k < reader.channelCount(); ++k)
            out[size_t(k)].insert(out[size_t(k)].end(), reader.channel(k), reader.channel(k) + n);
    }
    return out;
}

Channels decodeFile(const fs::path& path) {
    AudioFileReader reader(path.string());
    return decodeAll(reader);
}

// Power at one frequency over the middle half of the signal (away from codec ramp-in and padding).
double powerAt(const std::vector<float>& x, double frequency, double sampleRate) {
    const size_t begin = x.size() / 4, end = 3 * x.size() / 4;
    const double w = 2 * M_PI * frequency / sampleRate;
    double re = 0, im = 0;
    for (size_t i = begin; i < end; ++i) {
        re += x[i] * std::cos(w * double(i));
        im -= x[i] * std::sin(w * double(i));
    }
    return re * re + im * im;
}

std::set<std::string> availableEncoders() {
    std::set<std::string> names;
    FILE* p = popen("ffmpeg -hide_banner -encoders 2>/dev/null", "r");
    if (p == nullptr) return names;
    char line[512];
    while (fgets(line, sizeof line, p) != nullptr) {
        char flags[16], name[128];
        if (std::sscanf(line, " %15s %127s", flags, name) == 2) names.insert(name);
    }
    pclose(p);
    return names;
}

bool run(const std::string& arguments) {
    return std::system(("ffmpeg -nostdin -hide_banner -v error -y " + arguments).c_str()) == 0;
}

std::string q(const fs::path& p) {
    return "'" + p.string() + "'";
}

std::string expectThrows(const fs::path& path) {
    try {
        AudioFileReader reader(path.string());
    } catch (const AudioFileError& e) {
        return e.what();
    }
    ADD_FAILURE() << path << " opened";
    return {};
}

class AudioFileReaderTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir = std::make_unique<test::TempDir>();
        encoders = availableEncoders();
        // One second of 440 Hz left and 880 Hz right: a swapped or mixed channel shows at once.
        test::writeWav(*dir / "tone.wav", {test::sine(440, rate, 1.0), test::sine(880, rate, 1.0)}, rate);
        test::writeWav(*dir / "long.wav", {test::sine(440, rate, 4.0), test::sine(880, rate, 4.0)}, rate);
    }
    static void TearDownTestSuite() { dir.reset(); }

    static bool has(const std::string& encoder) { return encoders.count(encoder) != 0; }

    static inline std::unique_ptr<test::TempDir> dir;
    static inline std::set<std::string> encoders;
};

struct FormatCase {
    std::string name;
    std::string file;
    std::string arguments;  // after the inputs; VIDEO marks a movie (a tiny video stream goes first)
    std::vector<std::string> encoders;
    int rate;
    double tolerance;  // seconds of duration error allowed
};

// Lossless formats must give back exactly the 44100 frames written. Lossy codecs round up to whole
// codec frames (AAC 1024, MP3 1152, Vorbis up to 2048, Opus 960 samples) and the trailing padding is only
// trimmed where the container records it, so up to about two frames (~50 ms) may be left over.
constexpr double lossy = 0.05;

class AudioFileFormatTest : public AudioFileReaderTest, public ::testing::WithParamInterface<FormatCase> {};

TEST_P(AudioFileFormatTest, DecodesAtTheNativeRateWithChannelsInPlace) {
    const FormatCase& c = GetParam();
    for (const auto& e : c.encoders)
        if (!has(e)) GTEST_SKIP() << "ffmpeg has no " << e << " encoder";
    const fs::path out = *dir / c.file;
    const bool movie = c.arguments.find("VIDEO") != std::string::npos;
    std::string args = c.arguments;
    if (movie) args.replace(args.find("VIDEO"), 5, "-map 0:v -map 1:a -shortest");
    const std::string inputs =
        (movie ? "-f lavfi -i color=c=blue:s=64x64:r=10:d=1 " : "") + ("-i " + q(*dir / "tone.wav"));
    ASSERT_TRUE(run(inputs + " " + args + " " + q(out))) << c.name;

    AudioFileReader reader(out.string());
    EXPECT_EQ(reader.sampleRate(), c.rate);
    ASSERT_EQ(reader.channelCount(), 2);
    const Channels ch = decodeAll(reader);
    ASSERT_EQ(ch[0].size(), ch[1].size());
    const double seconds = double(ch[0].size()) / c.rate;
    if (c.tolerance == 0)
        EXPECT_EQ(ch[0].size(), size_t(rate));
    else
        EXPECT_NEAR(seconds, 1.0, c.tolerance);
    // Codec leakage between channels of a joint-stereo encode stays far below this ratio.
    EXPECT_GT(powerAt(ch[0], 440, c.rate), 30 * powerAt(ch[0], 880, c.rate));
    EXPECT_GT(powerAt(ch[1], 880, c.rate), 30 * powerAt(ch[1], 440, c.rate));
}

INSTANTIATE_TEST_SUITE_P(
    Formats, AudioFileFormatTest,
    ::testing::Values(
        FormatCase{"mp3", "t.mp3", "-c:a libmp3lame -b:a 128k", {"libmp3lame"}, rate, lossy},
        FormatCase{"m4a", "t.m4a", "-c:a aac -b:a 128k", {"aac"}, rate, lossy},
        FormatCase{"flac", "t.flac", "-c:a flac", {"flac"}, rate, 0},
        FormatCase{"ogg", "t.ogg", "-c:a libvorbis", {"libvorbis"}, rate, lossy},
        // Opus only runs at 48 kHz; the reader must report that rather than the source's 44.1 kHz.
        FormatCase{"opus", "t.opus", "-c:a libopus -b:a 96k", {"libopus"}, 48000, lossy},
        FormatCase{"aiff", "t.aiff", "-c:a pcm_s16be", {}, rate, 0},
        FormatCase{"mp4", "v.mp4", "VIDEO -c:v mpeg4 -c:a aac", {"mpeg4", "aac"}, rate, lossy},
        FormatCase{"mov", "v.mov", "VIDEO -c:v mpeg4 -c:a alac", {"mpeg4", "alac"}, rate, 0},
        FormatCase{"mkv", "v.mkv", "VIDEO -c:v mpeg4 -c:a flac", {"mpeg4", "flac"}, rate, 0},
        FormatCase{"webm",
                   "v.webm",
                   "VIDEO -c:v libvpx -deadline realtime -c:a libopus",
                   {"libvpx", "libopus"},
                   48000,
                   lossy}),
    [](const auto& info) { return info.param.name; });

TEST_F(AudioFileReaderTest, ReadsComeInExactChunksUntilTheEndWithSamplesIntact) {
    const fs::path path = *dir / "tone.wav";
    AudioFileReader reader(path.string());
    int64_t total = 0;
    // An odd chunk size straddles decoder frames; every read but the last must still be full.
    for (;;) {
        const int64_t n = reader.read(1000);
        if (n == 0) break;
        total += n;
        if (total < rate) {
            EXPECT_EQ(n, 1000);
        }
    }
    EXPECT_EQ(total, rate);
    EXPECT_EQ(reader.read(1000), 0);  // stays at the end

    // 16-bit PCM comes back within one quantisation step of what was written.
    const Channels ch = decodeFile(path);
    const auto left = test::sine(440, rate, 1.0), right = test::sine(880, rate, 1.0);
    double worst = 0;
    for (size_t i = 0; i < left.size(); ++i)
        worst =
            std::max({worst, std::abs(double(ch[0][i] - left[i])), std::abs(double(ch[1][i] - right[i]))});
    EXPECT_LT(worst, 1.0 / 32768 + 1e-6);
}

TEST_F(AudioFileReaderTest, TheFirstAudioStreamOfAMovieIsTheOneRead) {
    if (!has("mpeg4") || !has("flac")) GTEST_SKIP() << "ffmpeg lacks mpeg4 or flac";
    test::writeWav(*dir / "mono.wav", {test::sine(440, 22050, 1.0)}, 22050);
    test::writeWav(*dir / "wide.wav", {test::sine(880, 48000, 1.0), test::sine(880, 48000, 1.0)}, 48000);
    const fs::path out = *dir / "two.mkv";
    ASSERT_TRUE(run("-f lavfi -i color=c=red:s=64x64:r=10:d=1 -i " + q(*dir / "mono.wav") + " -i " +
                    q(*dir / "wide.wav") + " -map 0:v -map 1:a -map 2:a -c:v mpeg4 -c:a flac " + q(out)));
    AudioFileReader reader(out.string());
    EXPECT_EQ(reader.sampleRate(), 22050);
    EXPECT_EQ(reader.channelCount(), 1);
}

TEST_F(AudioFileReaderTest, UnreadableInputsFailInWordsNamingTheFile) {
    EXPECT_EQ(expectThrows(*dir / "missing.wav"), "missing.wav: no such file");
    EXPECT_EQ(expectThrows(dir->path()), dir->path().filename().string() + ": is a folder, not a file");
    EXPECT_EQ(expectThrows("/dev/zero"), "zero: not a regular file");

    test::writeText(*dir / "empty.mp3", "");
    EXPECT_EQ(expectThrows(*dir / "empty.mp3"), "empty.mp3: the file is empty");
    test::writeText(*dir / "notes.wav", std::string(2000, 'x') + "\nthis is not audio\n");
    EXPECT_EQ(expectThrows(*dir / "notes.wav"), "notes.wav: not an audio file FFmpeg can read");
    if (::geteuid() != 0) {  // root reads anything
        test::writeText(*dir / "locked.flac", "fLaC");
        fs::permissions(*dir / "locked.flac", fs::perms::none);
        EXPECT_EQ(expectThrows(*dir / "locked.flac"), "locked.flac: permission denied");
    }

    std::mt19937 random(7);
    std::string noise(100000, '\0');
    for (auto& b : noise) b = char(random());
    test::writeText(*dir / "noise.wav", noise);
    EXPECT_FALSE(expectThrows(*dir / "noise.wav").empty());

    if (has("mpeg4")) {
        ASSERT_TRUE(run("-f lavfi -i color=c=blue:s=64x64:r=10:d=1 -c:v mpeg4 " + q(*dir / "silent.mp4")));
        EXPECT_EQ(expectThrows(*dir / "silent.mp4"), "silent.mp4: the file has no audio track");
    }
    if (has("aac")) {
        // Without faststart the index sits at the end, so the first half is not a file at all.
        ASSERT_TRUE(run("-i " + q(*dir / "long.wav") + " -c:a aac " + q(*dir / "cut.m4a")));
        const std::string bytes = test::readText(*dir / "cut.m4a");
        test::writeText(*dir / "cut.m4a", bytes.substr(0, bytes.size() / 2));
        EXPECT_EQ(expectThrows(*dir / "cut.m4a"), "cut.m4a: not an audio file FFmpeg can read");
    }
}

// What a damaged file read to its end gives: the seconds decoded, or the reader's error.
std::string decodeOrError(const fs::path& path) {
    try {
        return velquin::format("%.2f s", double(decodeFile(path)[0].size()) / rate);
    } catch (const AudioFileError& e) {
        return e.what();
    }
}

TEST_F(AudioFileReaderTest, ATruncatedTailIsReadToItsEndADamagedMiddleIsAnError) {
    test::writeWav(*dir / "minute.wav", {test::sine(440, rate, 60.0), test::sine(880, rate, 60.0)}, rate);
    std::vector<std::string> codecs = {"flac"};
    if (has("libmp3lame")) codecs.push_back("libmp3lame");
    for (const std::string& codec : codecs) {
        SCOPED_TRACE(codec);
        const std::string ext = codec == "flac" ? "flac" : "mp3";
        const fs::path whole = *dir / ("minute." + ext);
        ASSERT_TRUE(run("-i " + q(*dir / "minute.wav") + " -c:a " + codec + " " + q(whole)));
        const std::string bytes = test::readText(whole);
        std::mt19937 random(3);
        const auto garbled = [&](size_t from, size_t count) {
            std::string copy = bytes;
            for (size_t i = from; i < from + count; ++i) copy[i] = char(random());
            return copy;
        };
        struct Case {
            std::string name, bytes;
            double seconds;  // decoded, within 0.6 s; 0 = the damage error
        };
        const std::vector<Case> cases = {
            {"half", bytes.substr(0, bytes.size() / 2), 30.0},           // cut short: read up to the cut
            {"speck", garbled(bytes.size() / 2, 4096), 60.0},            // a few bad packets are skipped
            {"middle", garbled(bytes.size() / 3, bytes.size() / 3), 0},  // nothing can stand in for this
        };
        for (const Case& c : cases) {
            const std::string name = c.name + "." + ext;
            test::writeText(*dir / name, c.bytes);
            const std::string got = decodeOrError(*dir / name);
            if (c.seconds > 0)
                EXPECT_NEAR(std::atof(got.c_str()), c.seconds, 0.6) << name << ": " << got;
            else
                EXPECT_EQ(got, name + ": damaged audio data at 0:19");
        }
    }

    // A WAV ending in half a sample frame: the whole frames before it are kept.
    const std::string wav = test::readText(*dir / "tone.wav");
    test::writeText(*dir / "odd.wav", wav.substr(0, wav.size() - 4001));
    EXPECT_NEAR(double(decodeFile(*dir / "odd.wav")[0].size()), rate - 1001, 1);
}

TEST_F(AudioFileReaderTest, NonFiniteSamplesComeOutAsSilence) {
    std::vector<float> left = test::sine(440, rate, 0.1), right = left;
    left[10] = std::numeric_limits<float>::quiet_NaN();
    left[11] = std::numeric_limits<float>::infinity();
    right[20] = -std::numeric_limits<float>::infinity();
    test::writeWav(*dir / "broken.wav", {left, right}, rate, true);
    const Channels ch = decodeFile(*dir / "broken.wav");
    ASSERT_EQ(ch[0].size(), left.size());
    EXPECT_EQ(ch[0][10], 0.0f);
    EXPECT_EQ(ch[0][11], 0.0f);
    EXPECT_EQ(ch[1][20], 0.0f);
    EXPECT_EQ(ch[0][12], left[12]);  // float WAV is otherwise bit-exact
    EXPECT_EQ(ch[1][21], right[21]);
}

TEST_F(AudioFileReaderTest, MultichannelAndHighRatePcmKeepEveryChannel) {
    // Each channel at its own level, written as 24-bit PCM.
    Channels six;
    for (int k = 0; k < 6; ++k) six.push_back(test::sine(1000, 96000, 0.5, 0.1 * (k + 1)));
    test::writeWav(*dir / "six.wav", six, 96000);
    ASSERT_TRUE(run("-i " + q(*dir / "six.wav") + " -c:a pcm_s24le " + q(*dir / "six24.wav")));
    AudioFileReader reader((*dir / "six24.wav").string());
    EXPECT_EQ(reader.sampleRate(), 96000);
    ASSERT_EQ(reader.channelCount(), 6);
    const Channels ch = decodeAll(reader);
    for (int k = 0; k < 6; ++k) {
        ASSERT_EQ(ch[size_t(k)].size(), 48000u);
        float peak = 0;
        for (float v : ch[size_t(k)]) peak = std::max(peak, std::abs(v));
        EXPECT_NEAR(peak, 0.1f * (k + 1), 1e-3) << "channel " << k;
    }
}

}  // namespace
}  // namespace velquin
