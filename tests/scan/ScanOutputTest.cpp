// The escaping in the output formats; the whole program's rows and headers are scan-e2e.sh's.
#include <gtest/gtest.h>

#include "scan/ScanOutput.h"

namespace velquin::scan {
namespace {

TEST(ScanOutput, CsvAndJsonRowsEscapeOddPaths) {
    ScanRow ok{"dir/x.mp3", FileResult{}, ""};
    ok.result->tempo = {128, 0.5, 0};
    ok.result->key.key = MusicalKey{3, true};
    ok.result->key.confidence = 0.25;
    ok.result->durationSeconds = 5;
    ScanRow failed{"a,\"b\"\x01\xff.wav", std::nullopt, "Invalid data found when processing input"};
    failed.analysis = fileAnalysis::Analysis::precise;

    EXPECT_EQ(rowLine(OutputFormat::csv, ok), "dir/x.mp3,128.00,0.500,E♭m,2A,0.250,,0.0,5.000,,specified");
    const ScanRow lines{"two\nlines\r.mp3", std::nullopt, "x"};
    EXPECT_EQ(rowLine(OutputFormat::csv, lines), "\"two\nlines\r.mp3\",,,,,,,,,x,specified");
    EXPECT_EQ(rowLine(OutputFormat::csv, failed),
              "\"a,\"\"b\"\"\x01\xff.wav\",,,,,,,,,Invalid data found when processing input,precise");
    EXPECT_EQ(
        rowLine(OutputFormat::json, ok),
        R"({"path":"dir/x.mp3","bpm":128.00,"bpm_confidence":0.500,"key":"E♭m","camelot":"2A",)"
        R"("key_confidence":0.250,"alternative":null,"tuning_cents":0.0,"duration_s":5.000,"error":null,)"
        R"("analysis":"specified"})");
    EXPECT_EQ(
        rowLine(OutputFormat::json, failed),
        R"({"path":"a,\"b\"\u0001\ufffd.wav","bpm":null,"bpm_confidence":null,"key":null,"camelot":null,)"
        R"("key_confidence":null,"alternative":null,"tuning_cents":null,"duration_s":null,)"
        R"("error":"Invalid data found when processing input","analysis":"precise"})");
}

TEST(ScanOutput, ShownTextEscapesWhatATerminalWouldActOn) {
    // Printable UTF-8 stays; C0, DEL, C1 (U+009B is a one-byte CSI to some terminals), stray bytes and
    // the backslash itself (so that an escape can be told from the same characters in a name) do not.
    EXPECT_EQ(shownText("Café – Ünïcode ♭.mp3"), "Café – Ünïcode ♭.mp3");
    EXPECT_EQ(shownText("a\nb\tc\rd\x1b[2Je\x7f"), "a\\nb\\tc\\rd\\x1b[2Je\\x7f");
    EXPECT_EQ(shownText("\xc2\x9b\x33\x31m \xc2\xa0"), "\\xc2\\x9b31m \xc2\xa0");  // "\x33\x31": 31
    EXPECT_EQ(shownText("\xff\xe2\x99 x\\y"), "\\xff\\xe2\\x99 x\\\\y");
    const ScanRow row{"d/\x1b]0;title\x07.mp3", std::nullopt, "\x1b]0;title\x07.mp3: the file is empty"};
    EXPECT_EQ(rowLine(OutputFormat::table, row),
              "Error: \\x1b]0;title\\x07.mp3: the file is empty  d/\\x1b]0;title\\x07.mp3");
}

}  // namespace
}  // namespace velquin::scan
