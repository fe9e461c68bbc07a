// The terminal file modes, run as a user runs them: the real program on generated files.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <regex>

#include "Dispatch.h"
#include "TestSupport.h"

using velquin::Dispatch;
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
                                std::string(bin ? bin : "velquin") + "' " + arguments +
                                (stdoutTo.empty() ? " >'" + out.string() + "'" : " " + stdoutTo) + " 2>'" +
                                err.string() + "'";
    const int status = std::system(command.c_str());
    return {WEXITSTATUS(status), test::readText(out), test::readText(err)};
}

}  // namespace

TEST(Dispatch, FixedOrderOfTests) {
    const auto mode = [](std::vector<std::string> args) {
        args.insert(args.begin(), "velquin");
        return Dispatch::from(args).mode;
    };
    // Every mode itself runs in the conformance and e2e suites; these are the edges.
    EXPECT_EQ(mode({"--analyze"}), Dispatch::Mode::panel);  // too few arguments falls through
    EXPECT_EQ(mode({"--chroma", "a.wav"}), Dispatch::Mode::panel);
    EXPECT_EQ(mode({"-h", "a.wav", "b"}), Dispatch::Mode::help);
    EXPECT_EQ(mode({"--Analyze", "a.wav"}), Dispatch::Mode::panel);  // switches are case-sensitive
    EXPECT_EQ(mode({"bogus", "a", "b"}), Dispatch::Mode::panel);
    EXPECT_EQ(Dispatch::from({"v", "--analyze", "a.wav", "slow"}).arguments,
              (std::vector<std::string>{"a.wav", "slow"}));
}

// The file modes' outputs, and their errors on unreadable files, are checked by tests/conformance.
TEST(FileModes, LiveRefusesWhatItCannotHonourBeforeTouchingAudio) {
    test::TempDir dir;
    for (const char* duration : {"inf", "nan", "1e300", "0", "-5"}) {
        const ProgramRun run = runVelquin(std::string("--live system ") + duration, dir);
        EXPECT_EQ(run.exitCode, 1) << duration;
        EXPECT_TRUE(std::regex_match(run.err, std::regex("Error: [^\n]+\n"))) << run.err;
    }
    // And a recording in a container that cannot be written.
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

    // An unknown range word reads as auto.
    EXPECT_EQ(runVelquin("--analyze tone.wav bogus", dir).out,
              runVelquin("--analyze tone.wav auto", dir).out);

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
        for (const auto& [to, reason] :
             {Case{">/dev/full", "No space left on device"}, Case{">&-", "Bad file descriptor"}}) {
            const ProgramRun run = runVelquin(mode, dir, to);
            EXPECT_EQ(run.exitCode, 1) << mode << to;
            EXPECT_EQ(run.err, "Error: could not write the result: " + reason + "\n") << mode << to;
        }
    }
}

TEST(FileModes, PreciseAnalysisOnlyWhenTheSwitchSaysSo) {
    test::TempDir dir;
    auto beat = test::clickTrain(100, 44100, 12);
    test::mixInto(beat, test::progression({{60, 64, 67}, {65, 69, 72}, {67, 71, 74}}, 44100, 12), 0.5f);
    test::writeWav(dir / "beat.wav", {beat}, 44100);
    const ProgramRun plain = runVelquin("--analyze beat.wav", dir);
    const ProgramRun precise = runVelquin("--analyze beat.wav", dir, "", "VELQUIN_ANALYSIS=precise");
    ASSERT_EQ(plain.exitCode, 0);
    ASSERT_EQ(precise.exitCode, 0);
    EXPECT_NE(plain.out, precise.out);  // its own confidences, at least
    EXPECT_NE(precise.out.find("BPM ("), std::string::npos);
    EXPECT_NE(precise.out.find("beat.wav\n"), std::string::npos);
    for (const char* other :
         {"VELQUIN_ANALYSIS=Precise", "VELQUIN_ANALYSIS=specified", "TESSARO_ANALYSIS=precise"})
        EXPECT_EQ(runVelquin("--analyze beat.wav", dir, "", other).out, plain.out) << other;
    // The other modes are the live engine's whatever the switch.
    EXPECT_EQ(runVelquin("--timeline beat.wav", dir, "", "VELQUIN_ANALYSIS=precise").out,
              runVelquin("--timeline beat.wav", dir).out);
    EXPECT_EQ(runVelquin("--analyze missing.wav", dir, "", "VELQUIN_ANALYSIS=precise").exitCode, 1);
}

// Start-up: a terminal without a display gets a sentence, not an abort; --help needs no display.
TEST(FileModes, HelpAndMissingDisplay) {
    test::TempDir dir;
    EXPECT_EQ(runVelquin("--help", dir, "", "-u DISPLAY").exitCode, 0);
    // No X display or Wayland socket, or a platform plugin that fails: the bar cannot start. The
    // error names both ways to a display; the Wayland library may say a line of its own before it.
    const std::string error =
        "Error: no graphical display: needs an X11 display (DISPLAY) or a Wayland compositor "
        "(WAYLAND_DISPLAY) with Qt's Wayland plugin (package qt6-wayland); without a desktop use --analyze, "
        "--timeline, --chroma or --live (see --help)\n";
    for (const char* environment :
         {"QT_QPA_PLATFORM=", "QT_QPA_PLATFORM=nonesuch", "QT_QPA_PLATFORM=wayland"}) {
        for (const char* arguments : {"", "--analyze", "--chroma a.wav"}) {
            const ProgramRun run =
                runVelquin(arguments, dir, "", std::string("-u DISPLAY -u WAYLAND_DISPLAY ") + environment);
            EXPECT_EQ(run.exitCode, 1) << environment << arguments;
            EXPECT_TRUE(run.err.ends_with(error)) << run.err << environment << arguments;
            EXPECT_EQ(run.err.find("Error:"), run.err.size() - error.size()) << environment << arguments;
        }
    }
}
