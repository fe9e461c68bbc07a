// The decoder against tiny files made at test time by the ffmpeg command-line tool from WAVs we write.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include "analysis/Format.h"
#include "fileanalysis/AudioFileReader.h"
#include "support/TestSupport.h"

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

// Debian's ffmpeg has every encoder used here; a missing one fails the test rather than hiding it.
class AudioFileReaderTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir = std::make_unique<test::TempDir>();
        // One second of 440 Hz left and 880 Hz right: a swapped or mixed channel shows at once.
        test::writeWav(*dir / "tone.wav", {test::sine(440, rate, 1.0), test::sine(880, rate, 1.0)}, rate);
    }
    static void TearDownTestSuite() { dir.reset(); }

    static inline std::unique_ptr<test::TempDir> dir;
};

// Lossless formats must give back exactly the 44100 frames written. Lossy codecs round up to whole
// codec frames (AAC 1024, MP3 1152, Vorbis up to 2048, Opus 960 samples) and the trailing padding is only
// trimmed where the container records it, so up to about two frames (~50 ms) may be left over.
constexpr double lossy = 0.05;

TEST_F(AudioFileReaderTest, EveryDroppedFormatDecodesAtItsNativeRateWithChannelsInPlace) {
    const struct {
        const char* file;
        const char* arguments;  // a movie's file starts with "v": a tiny video stream goes first
        int rate;               // Opus only runs at 48 kHz, and the reader must say so
        double tolerance;       // seconds of duration error allowed
    } cases[] = {
        {"t.mp3", "-c:a libmp3lame -b:a 128k", rate, lossy},
        {"t.m4a", "-c:a aac -b:a 128k", rate, lossy},
        {"t.flac", "-c:a flac", rate, 0},
        {"t.ogg", "-c:a libvorbis", rate, lossy},
        {"t.opus", "-c:a libopus -b:a 96k", 48000, lossy},
        {"t.aiff", "-c:a pcm_s16be", rate, 0},
        {"v.mp4", "-c:v mpeg4 -c:a aac", rate, lossy},
        {"v.mov", "-c:v mpeg4 -c:a alac", rate, 0},
        {"v.mkv", "-c:v mpeg4 -c:a flac", rate, 0},
        {"v.webm", "-c:v libvpx -deadline realtime -c:a libopus", 48000, lossy},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const fs::path out = *dir / c.file;
        const bool movie = c.file[0] == 'v';
        ASSERT_TRUE(run((movie ? "-f lavfi -i color=c=blue:s=64x64:r=10:d=1 " : "") +
                        ("-i " + q(*dir / "tone.wav")) + (movie ? " -map 0:v -map 1:a -shortest " : " ") +
                        c.arguments + " " + q(out)));
        AudioFileReader reader(out.string());
        EXPECT_EQ(reader.sampleRate(), c.rate);
        ASSERT_EQ(reader.channelCount(), 2);
        const Channels ch = decodeAll(reader);
        ASSERT_EQ(ch[0].size(), ch[1].size());
        if (c.tolerance == 0)
            EXPECT_EQ(ch[0].size(), size_t(rate));
        else
            EXPECT_NEAR(double(ch[0].size()) / c.rate, 1.0, c.tolerance);
        // Codec leakage between channels of a joint-stereo encode stays far below this ratio.
        EXPECT_GT(powerAt(ch[0], 440, c.rate), 30 * powerAt(ch[0], 880, c.rate));
        EXPECT_GT(powerAt(ch[1], 880, c.rate), 30 * powerAt(ch[1], 440, c.rate));
    }
}

TEST_F(AudioFileReaderTest, ReadsComeInExactChunksUntilTheEndWithSamplesIntact) {
    const fs::path path = *dir / "tone.wav";
    AudioFileReader reader(path.string());
    int64_t total = 0;
    // An odd chunk size straddles decoder frames; every read but the last must still be full.
    for (int64_t n; (n = reader.read(1000)) > 0;) {
        total += n;
        EXPECT_TRUE(n == 1000 || total == rate) << total;
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

    ASSERT_TRUE(run("-f lavfi -i color=c=blue:s=64x64:r=10:d=1 -c:v mpeg4 " + q(*dir / "silent.mp4")));
    EXPECT_EQ(expectThrows(*dir / "silent.mp4"), "silent.mp4: the file has no audio track");
    // Without faststart the index sits at the end, so the first half is not a file at all.
    ASSERT_TRUE(run("-f lavfi -i sine=d=4 -c:a aac " + q(*dir / "cut.m4a")));
    const std::string bytes = test::readText(*dir / "cut.m4a");
    test::writeText(*dir / "cut.m4a", bytes.substr(0, bytes.size() / 2));
    EXPECT_EQ(expectThrows(*dir / "cut.m4a"), "cut.m4a: not an audio file FFmpeg can read");
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
    for (const std::string codec : {"flac", "libmp3lame"}) {
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
        const struct {
            std::string name, bytes;
            double seconds;  // decoded, within 0.6 s; 0 = the damage error
        } cases[] = {
            {"half", bytes.substr(0, bytes.size() / 2), 30.0},           // cut short: read up to the cut
            {"speck", garbled(bytes.size() / 2, 4096), 60.0},            // a few bad packets are skipped
            {"middle", garbled(bytes.size() / 3, bytes.size() / 3), 0},  // nothing can stand in for this
        };
        for (const auto& c : cases) {
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
    left[10] = left[11] = right[20] = 0;  // float WAV is otherwise bit-exact
    EXPECT_EQ(ch, (Channels{left, right}));
}

TEST_F(AudioFileReaderTest, MultichannelAndHighRatePcmKeepEveryChannel) {
    Channels six;  // each channel at its own level, written as 24-bit PCM
    for (int k = 0; k < 6; ++k) six.push_back(test::sine(1000, 96000, 0.5, 0.1 * (k + 1)));
    test::writeWav(*dir / "six.wav", six, 96000);
    ASSERT_TRUE(run("-i " + q(*dir / "six.wav") + " -c:a pcm_s24le " + q(*dir / "six24.wav")));
    AudioFileReader reader((*dir / "six24.wav").string());
    EXPECT_EQ(reader.sampleRate(), 96000);
    const Channels ch = decodeAll(reader);
    ASSERT_EQ(ch.size(), 6u);
    for (size_t k = 0; k < 6; ++k) {
        ASSERT_EQ(ch[k].size(), 48000u);
        EXPECT_NEAR(*std::max_element(ch[k].begin(), ch[k].end()), 0.1 * double(k + 1), 1e-3) << k;
    }
}

}  // namespace
}  // namespace velquin
