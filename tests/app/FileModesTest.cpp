// The terminal file modes, run as a user runs them: the real program on generated files.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

#include "Dispatch.h"
#include "FileModes.h"
#include "Format.h"
#include "LiveMode.h"
#include "TestSupport.h"

using velquin::Dispatch;
using velquin::KeyEstimate;
using velquin::MusicalKey;
using velquin::TempoEstimate;
namespace test = velquin::test;

namespace {

struct ProgramRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// `stdoutTo` replaces the redirection of standard output (">/dev/full", ">&-"); `environment` is for env(1).
ProgramRun runVelquin(const std::string& arguments, const test::TempDir& dir,
                      const std::string& stdoutTo = "", const std::string& environment = "") {
    const char* bin = std::getenv("VELQUIN_BIN");
    EXPECT_NE(bin, nullptr);
    const auto out = dir / "stdout.txt", err = dir / "stderr.txt";
    const std::string command = "cd '" + dir.path().string() + "' && env " + environment + " '" +
                                std::string(bin ? bin : "velquin") + "' " +
                                arguments + (stdoutTo.empty() ? " >'" + out.string() + "'" : " " + stdoutTo) +
                                " 2>'" + err.string() + "'";
    const int status = std::system(command.c_str());
    return {WEXITSTATUS(status), test::readText(out), test::readText(err)};
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) result.push_back(line);
    return result;
}

}  // namespace

TEST(Dispatch, FixedOrderOfTests) {
    const auto mode = [](std::vector<std::string> args) {
        args.insert(args.begin(), "velquin");
        return Dispatch::from(args).mode;
    };
    EXPECT_EQ(mode({}), Dispatch::Mode::menuBar);
    EXPECT_EQ(mode({"--analyze"}), Dispatch::Mode::menuBar);  // too few arguments falls through
    EXPECT_EQ(mode({"--analyze", "a.wav"}), Dispatch::Mode::analyze);
    EXPECT_EQ(mode({"--timeline", "a.wav"}), Dispatch::Mode::timeline);
    EXPECT_EQ(mode({"--chroma", "a.wav"}), Dispatch::Mode::menuBar);
    EXPECT_EQ(mode({"--chroma", "a.wav", "b.csv"}), Dispatch::Mode::chroma);
    EXPECT_EQ(mode({"--live", "mic"}), Dispatch::Mode::live);
    EXPECT_EQ(mode({"--help"}), Dispatch::Mode::help);
    EXPECT_EQ(mode({"-h", "a.wav", "b"}), Dispatch::Mode::help);
    EXPECT_EQ(mode({"--Analyze", "a.wav"}), Dispatch::Mode::menuBar);  // switches are case-sensitive
    EXPECT_EQ(mode({"bogus", "a", "b"}), Dispatch::Mode::menuBar);
    EXPECT_EQ(Dispatch::from({"v", "--analyze", "a.wav", "slow"}).arguments,
              (std::vector<std::string>{"a.wav", "slow"}));
}

TEST(FileModes, ResultAndReadingLines) {
    KeyEstimate key;
    key.key = MusicalKey{3, true};
    key.alternative = MusicalKey{6, false};
    key.confidence = 0.734;
    key.tuningCents = -7.96;
    EXPECT_EQ(velquin::FileModes::resultLine({93, 1, 0.2}, key),
              "  93.00 BPM (100%)  E♭m  2A   ( 73%) or F♯  tuning  -8.0 cents");
    EXPECT_EQ(velquin::FileModes::resultLine({0, 0.5, 0}, KeyEstimate::unknown), "     no tempo       no key");
    EXPECT_EQ(velquin::LiveMode::readingLine({121.456, 0.8, 0.01234}, key),
              "121.46 BPM ( 80%)   key E♭m 2A   ( 73%)   level 0.0123");
    EXPECT_EQ(velquin::LiveMode::readingLine({}, KeyEstimate::unknown),
              "  ---- BPM (  0%)   key --       (  0%)   level 0.0000");
}

TEST(FileModes, AnalyzeClicksRangesAndSilence) {
    test::TempDir dir;
    auto clicks = test::clickTrain(120, 44100, 20);
    test::mixInto(clicks, test::progression({{57, 60, 64}, {53, 57, 60}, {48, 52, 55}, {55, 59, 62}}, 44100, 20), 0.5f);
    test::writeWav(dir / "clicks.wav", {clicks}, 44100);

    const ProgramRun plain = runVelquin("--analyze clicks.wav", dir);
    EXPECT_EQ(plain.exitCode, 0);
    EXPECT_TRUE(plain.err.empty()) << plain.err;
    const std::regex shape(R"( 120\.00 BPM \(\s*\d+%\)  \S+\s+\d+[AB]\s+\(\s*\d+%\)( or \S+)?  tuning\s+[+-]\d+\.\d cents  clicks\.wav\n)");
    EXPECT_TRUE(std::regex_match(plain.out, shape)) << plain.out;
    EXPECT_EQ(runVelquin("--analyze clicks.wav bogus", dir).out, plain.out);  // an unknown range word is auto
    EXPECT_EQ(runVelquin("--analyze clicks.wav verySlow", dir).out.substr(0, 12), "  60.00 BPM ");

    // Silence, and a stereo file whose channels cancel, have neither tempo nor key.
    test::writeWav(dir / "silence.wav", {std::vector<float>(44100 * 3, 0.0f)}, 44100);
    EXPECT_EQ(runVelquin("--analyze silence.wav", dir).out, "     no tempo       no key  silence.wav\n");
    std::vector<float> inverted(clicks.size());
    for (size_t i = 0; i < clicks.size(); ++i) inverted[i] = -clicks[i];
    test::writeWav(dir / "antiphase.wav", {clicks, inverted}, 44100);
    EXPECT_EQ(runVelquin("--analyze antiphase.wav", dir).out, "     no tempo       no key  antiphase.wav\n");

    // Six identical channels mix back to the mono signal.
    test::writeWav(dir / "six.wav", std::vector<std::vector<float>>(6, clicks), 44100);
    const ProgramRun six = runVelquin("--analyze six.wav", dir);
    EXPECT_EQ(six.out.substr(0, six.out.size() - 8), plain.out.substr(0, plain.out.size() - 11));
}

TEST(FileModes, TimelineTicksAtChunkBoundariesAndSummary) {
    test::TempDir dir;
    test::writeWav(dir / "ten.wav", {test::progression({{60, 64, 67}, {65, 69, 72}}, 44100, 10)}, 44100);
    const ProgramRun run = runVelquin("--timeline ten.wav", dir);
    EXPECT_EQ(run.exitCode, 0);
    const auto output = lines(run.out);
    // 16384-frame chunks: ticks at 1.11, 2.23, … s, printed rounded; the last, short chunk ends at 10.0 s.
    ASSERT_EQ(output.size(), 11u) << run.out;
    for (size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(output[i].substr(0, 6), velquin::format("%4d  ", int(i + 1))) << output[i];
        EXPECT_NE(output[i].find("  shown:"), std::string::npos);
    }
    EXPECT_EQ(output[0].substr(6), "--      0%  shown:-  bpm:-   0%");  // too early for anything
    EXPECT_TRUE(std::regex_match(output[10], std::regex(R"(FINAL \S+ \d+%  bpm:\d+\.\d  restarts:0  ten\.wav)")))
        << output[10];

    test::writeWav(dir / "quiet.wav", {std::vector<float>(44100 * 2, 0.0f)}, 44100);
    EXPECT_EQ(lines(runVelquin("--timeline quiet.wav", dir).out).back(), "FINAL -- 0%  bpm:0.0  restarts:0  quiet.wav");
}

TEST(FileModes, ChromaWritesTheCsv) {
    test::TempDir dir;
    test::writeWav(dir / "tone.wav", {test::sine(440, 22050, 2.0)}, 22050);
    const ProgramRun run = runVelquin("--chroma tone.wav out.csv", dir);
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_TRUE(run.out.empty());
    const auto csv = lines(test::readText(dir / "out.csv"));
    ASSERT_GT(csv.size(), 5u);
    EXPECT_EQ(csv[0], "t,c0,c1,c2,c3,c4,c5,c6,c7,c8,c9,c10,c11,m0,m1,m2,m3,m4,m5,m6,m7,m8,m9,m10,m11,bass");
    EXPECT_EQ(std::count(csv[1].begin(), csv[1].end(), ','), 25);

    // Too short for one frame: only the header.
    test::writeWav(dir / "short.wav", {test::sine(440, 22050, 0.2)}, 22050);
    EXPECT_EQ(runVelquin("--chroma short.wav short.csv", dir).exitCode, 0);
    EXPECT_EQ(lines(test::readText(dir / "short.csv")).size(), 1u);
}

TEST(FileModes, BadInputIsOneErrorLineInWordsAndExitOne) {
    test::TempDir dir;
    { std::ofstream(dir / "empty.mp3"); }
    std::ofstream(dir / "notes.wav") << "This is not audio.\nIt is a text file named .wav.\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"missing.wav", "missing.wav: no such file"},
        {"empty.mp3", "empty.mp3: the file is empty"},
        {"notes.wav", "notes.wav: not an audio file FFmpeg can read"},
    };
    for (const auto& [file, error] : cases) {
        for (const std::string& mode : {"--analyze " + file, "--timeline " + file, "--chroma " + file + " x.csv"}) {
            const ProgramRun run = runVelquin(mode, dir);
            EXPECT_EQ(run.exitCode, 1) << mode;
            EXPECT_TRUE(run.out.empty()) << mode;
            EXPECT_EQ(run.err, "Error: " + error + "\n") << mode;
        }
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "x.csv"));

    // Durations the live mode cannot honour are refused before any audio is touched.
    for (const char* duration : {"inf", "nan", "1e300", "0", "-5"}) {
        const ProgramRun run = runVelquin(std::string("--live system ") + duration, dir);
        EXPECT_EQ(run.exitCode, 1) << duration;
        EXPECT_TRUE(std::regex_match(run.err, std::regex("Error: [^\n]+\n"))) << run.err;
    }
    // So is a recording in a container that cannot be written.
    for (const char* name : {"take.mp3", "take", "/dev/null"}) {
        const ProgramRun run = runVelquin(std::string("--live system 5 ") + name, dir);
        EXPECT_EQ(run.exitCode, 1) << name;
        EXPECT_NE(run.err.find("must end in .wav, .caf or .flac"), std::string::npos) << run.err;
    }
}

// Files: the CSV never goes through something that is not ours to replace, and results are never lost
// without a word.
TEST(FileModes, OutputsReplaceOnlyOrdinaryFilesAndWritesAreChecked) {
    namespace fs = std::filesystem;
    test::TempDir dir;
    test::writeWav(dir / "tone.wav", {test::sine(440, 22050, 1.0)}, 22050);
    const std::string audio = test::readText(dir / "tone.wav");
    fs::create_directory(dir / "folder.csv");
    fs::create_directory(dir / "real");
    fs::create_symlink("tone.wav", dir / "alias.wav");
    fs::create_symlink("real/target.csv", dir / "link.csv");
    ASSERT_EQ(::mkfifo((dir / "fifo.csv").c_str(), 0644), 0);
    std::ofstream(dir / "locked.csv") << "keep";
    fs::permissions(dir / "locked.csv", fs::perms::owner_read);

    const std::vector<std::pair<std::string, std::string>> refused = {
        {"tone.wav", "could not write tone.wav: it is the audio file being analysed"},
        {"alias.wav", "could not write alias.wav: it is the audio file being analysed"},
        {"./real/../tone.wav", "could not write ./real/../tone.wav: it is the audio file being analysed"},
        {"folder.csv", "could not write folder.csv: Is a directory"},
        {"fifo.csv", "could not write fifo.csv: not a regular file"},
        {"/dev/null", "could not write /dev/null: not a regular file"},
        {"locked.csv", "could not write locked.csv: Permission denied"},
        {"nowhere/x.csv", "could not write nowhere/x.csv: No such file or directory"},
    };
    for (const auto& [target, error] : refused) {
        const ProgramRun run = runVelquin("--chroma tone.wav " + target, dir);
        EXPECT_EQ(run.exitCode, 1) << target;
        EXPECT_EQ(run.err, "Error: " + error + "\n") << target;
    }
    EXPECT_EQ(test::readText(dir / "tone.wav"), audio);
    EXPECT_EQ(test::readText(dir / "locked.csv"), "keep");
    EXPECT_TRUE(fs::is_character_file("/dev/null"));

    // A link is written through: the file it names gets the CSV, the link stays a link.
    EXPECT_EQ(runVelquin("--chroma tone.wav link.csv", dir).exitCode, 0);
    EXPECT_TRUE(fs::is_symlink(dir / "link.csv"));
    EXPECT_EQ(test::readText(dir / "real/target.csv").substr(0, 5), "t,c0,");
    size_t entries = 0;  // and no temporary file is left anywhere
    for ([[maybe_unused]] const auto& entry : fs::recursive_directory_iterator(dir.path())) ++entries;
    EXPECT_EQ(entries, 10u);  // the seven made above, the CSV and the two captured streams

    // A result that cannot be written is an error, not a silent success.
    for (const char* mode : {"--analyze tone.wav", "--timeline tone.wav"}) {
        using Case = std::pair<std::string, std::string>;
        for (const auto& [to, reason] : {Case{">/dev/full", "No space left on device"},
                                         Case{">&-", "Bad file descriptor"}}) {
            const ProgramRun run = runVelquin(mode, dir, to);
            EXPECT_EQ(run.exitCode, 1) << mode << to;
            EXPECT_EQ(run.err, "Error: could not write the result: " + reason + "\n") << mode << to;
        }
    }
}

// Start-up: a terminal without a display gets a sentence, not an abort; --help needs no display.
TEST(FileModes, HelpAndMissingDisplay) {
    test::TempDir dir;
    for (const char* help : {"--help", "-h"}) {
        const ProgramRun run = runVelquin(help, dir, "", "-u DISPLAY");
        EXPECT_EQ(run.exitCode, 0);
        for (const char* mode : {"--analyze", "--timeline", "--chroma", "--live"})
            EXPECT_NE(run.out.find(mode), std::string::npos) << mode;
    }
    // No X display or Wayland socket, or a platform plugin that fails: the bar cannot start.
    for (const char* environment : {"QT_QPA_PLATFORM=", "QT_QPA_PLATFORM=nonesuch"}) {
        for (const char* arguments : {"", "--analyze", "--chroma a.wav"}) {
            const ProgramRun run =
                runVelquin(arguments, dir, "", std::string("-u DISPLAY -u WAYLAND_DISPLAY ") + environment);
            EXPECT_EQ(run.exitCode, 1) << environment << arguments;
            EXPECT_EQ(run.err,
                      "Error: no graphical display (set DISPLAY, or use --analyze, --timeline, --chroma or "
                      "--live; see --help)\n")
                << environment << arguments;
        }
    }
}
