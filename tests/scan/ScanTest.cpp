// velquin-scan's parts: tags read back through TagLib, the cache, the escaping in the output formats,
// the options. The whole program (table rows, headers, untaggable files, times and modes kept) is
// exercised by scan-e2e.sh.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <taglib/fileref.h>
#include <taglib/mp4file.h>
#include <taglib/tpropertymap.h>

#include <cstdlib>
#include <filesystem>

#include "AnalysisCache.h"
#include "ScanAnalysis.h"
#include "ScanOptions.h"
#include "ScanOutput.h"
#include "TagWriter.h"
#include "TestSupport.h"

namespace velquin::scan {
namespace {

namespace fs = std::filesystem;

bool makeAudio(const fs::path& path, const std::string& codec) {
    const std::string command = "ffmpeg -nostdin -v error -y -f lavfi -i sine=frequency=440:duration=1 " +
                                codec + " -metadata title=Kept '" + path.string() + "'";
    return std::system(command.c_str()) == 0;
}

TagLib::PropertyMap propertiesOf(const fs::path& path) {
    TagLib::FileRef ref(path.c_str());
    if (ref.isNull()) return {};
    auto map = ref.file()->properties();
    // TagLib 1.13 has no common name for MP4's freeform key item.
    if (auto* mp4 = dynamic_cast<TagLib::MP4::File*>(ref.file()))
        map["INITIALKEY"] = mp4->tag()->item("----:com.apple.iTunes:initialkey").toStringList();
    return map;
}

std::string property(const TagLib::PropertyMap& map, const char* name) {
    const auto values = map[name];
    return values.isEmpty() ? "" : values.front().to8Bit(true);
}

TEST(TagWriter, WritesKeyAndBpmIntoEveryTagFamilyAndKeepsTheRest) {
    test::TempDir dir;
    const TempoEstimate tempo{127.6, 0.9, 0.1};
    KeyEstimate key = KeyEstimate::unknown;
    key.key = MusicalKey{10, false};  // B♭: "Bb", 6B
    key.confidence = 0.9;
    struct Case {
        const char* name;
        const char* codec;
        bool camelot;
    };
    // TagLib shows ID3v2 TKEY/TBPM, Vorbis INITIALKEY/BPM and MP4 tmpo as INITIALKEY/BPM.
    for (const Case& c : {Case{"v3.mp3", "-id3v2_version 3", false}, Case{"v4.mp3", "", true},
                          Case{"a.flac", "", false}, Case{"a.ogg", "-c:a libvorbis", false},
                          Case{"a.opus", "-c:a libopus", true}, Case{"a.m4a", "-c:a aac", false},
                          Case{"a.wav", "", false}, Case{"a.aiff", "-write_id3v2 1", true}}) {
        SCOPED_TRACE(c.name);
        const fs::path file = dir / c.name;
        ASSERT_TRUE(makeAudio(file, c.codec));
        EXPECT_EQ(writeTags(file, tempo, key, {c.camelot, false}).failure, "");
        const auto tags = propertiesOf(file);
        EXPECT_EQ(property(tags, "INITIALKEY"), c.camelot ? "6B" : "Bb");
        EXPECT_EQ(property(tags, "BPM"), "128");
        if (std::string(c.name) != "a.wav") {
            EXPECT_EQ(property(tags, "TITLE"), "Kept");
        }
        struct stat first {
        }, second{};
        ::stat(file.c_str(), &first);
        EXPECT_EQ(writeTags(file, tempo, key, {c.camelot, false}).failure, "");
        ::stat(file.c_str(), &second);
        EXPECT_EQ(first.st_ctim.tv_nsec, second.st_ctim.tv_nsec)
            << "tags already there: the file is not rewritten";
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 8) << "no copy left behind";
}

TEST(AnalysisCache, FindsAnEntryOnlyWhenEveryPartOfTheKeyMatches) {
    test::TempDir dir;
    const AnalysisCache::Key key{"/music/a.flac", 1000, 123456789, 1, "auto", 77, 123456999};
    AnalysisCache::Entry entry;
    entry.tempo = {124.5, 0.8, 0.2};
    entry.key.key = MusicalKey{3, true};
    entry.key.alternative = MusicalKey{6, false};
    entry.key.confidence = 0.7;
    entry.key.tuningCents = -12.5;
    entry.key.chroma[4] = 1.0;
    entry.durationSeconds = 61.25;
    {
        AnalysisCache cache(dir / "sub" / "scan.sqlite");
        cache.store(key, entry);
    }
    const AnalysisCache cache(dir / "sub" / "scan.sqlite");  // a new process, as it were
    const auto found = cache.lookup(key);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->tempo.bpm, 124.5);
    EXPECT_EQ(found->key.key, entry.key.key);
    EXPECT_EQ(found->key.alternative, entry.key.alternative);
    EXPECT_EQ(found->key.tuningCents, -12.5);
    EXPECT_EQ(found->key.chroma, entry.key.chroma);
    EXPECT_EQ(found->durationSeconds, 61.25);
    auto changed = std::vector<AnalysisCache::Key>(7, key);
    changed[0].path = "/music/b.flac";
    changed[1].size = 1001;
    changed[2].mtimeNs = 123456790;
    changed[3].version = 2;
    changed[4].range = "fast";
    changed[5].inode = 78;  // another file put in its place
    changed[6].ctimeNs = 123457000;
    for (size_t i = 0; i < changed.size(); ++i) EXPECT_FALSE(cache.lookup(changed[i])) << "change " << i;
}

TEST(AnalysisCache, ThePreciseAnalysisKeepsItsOwnEntries) {
    test::TempDir dir;
    EXPECT_EQ(cacheRange(TempoRange::Auto, FileAnalysis::Analysis::specified), "auto");
    EXPECT_EQ(cacheRange(TempoRange::fast, FileAnalysis::Analysis::precise), "fast/precise");
    AnalysisCache cache(dir / "scan.sqlite");
    const AnalysisCache::Key specified{"/music/a.flac", 1000, 123456789, 1, "auto"};
    AnalysisCache::Key precise = specified;
    precise.range = cacheRange(TempoRange::Auto, FileAnalysis::Analysis::precise);
    AnalysisCache::Entry a, b;
    a.tempo.bpm = 120;
    b.tempo.bpm = 180;
    cache.store(specified, a);
    EXPECT_FALSE(cache.lookup(precise));
    cache.store(precise, b);
    ASSERT_TRUE(cache.lookup(specified) && cache.lookup(precise));
    EXPECT_EQ(cache.lookup(specified)->tempo.bpm, 120);
    EXPECT_EQ(cache.lookup(precise)->tempo.bpm, 180);
}

TEST(ScanOutput, CsvAndJsonRowsEscapeOddPaths) {
    ScanRow ok{"dir/x.mp3", AnalysisCache::Entry{}, ""};
    ok.result->tempo = {128, 0.5, 0};
    ok.result->key.key = MusicalKey{3, true};
    ok.result->key.confidence = 0.25;
    ok.result->durationSeconds = 5;
    ScanRow failed{"a,\"b\"\x01\xff.wav", std::nullopt, "Invalid data found when processing input"};
    failed.analysis = FileAnalysis::Analysis::precise;

    EXPECT_EQ(rowLine(OutputFormat::csv, ok), "dir/x.mp3,128.00,0.500,E♭m,2A,0.250,,0.0,5.000,,specified");
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

TEST(ScanOptions, ParsesOrNamesTheUsageError) {
    const auto ok = parseOptions({"--jobs=3", "--range", "fast", "--format", "json", "--write-tags",
                                  "--key-notation", "camelot", "--analysis=precise", "--", "--odd-name.mp3"},
                                 2, true);
    ASSERT_TRUE(ok.options) << ok.error;
    EXPECT_EQ(ok.options->jobs, 3);
    EXPECT_EQ(ok.options->range, TempoRange::fast);
    EXPECT_EQ(ok.options->format, OutputFormat::json);
    EXPECT_TRUE(ok.options->writeTags && ok.options->camelotTags);
    EXPECT_EQ(ok.options->analysis, FileAnalysis::Analysis::precise);
    EXPECT_EQ(parseOptions({"x"}, 2, false).options->analysis, FileAnalysis::Analysis::specified);
    EXPECT_EQ(ok.options->paths, std::vector<std::string>{"--odd-name.mp3"});
    EXPECT_EQ(parseOptions({"x"}, 2, false).options->format, OutputFormat::csv);
    EXPECT_TRUE(parseOptions({"--version"}, 2, false).options->version) << "needs no path";
    for (const auto& bad : std::vector<std::vector<std::string>>{{},
                                                                 {"--jobs", "0", "x"},
                                                                 {"--jobs"},
                                                                 {"--range", "Fast", "x"},
                                                                 {"--format", "xml", "x"},
                                                                 {"--analysis", "Precise", "x"},
                                                                 {"--key-notation", "open", "x"},
                                                                 {"--frobnicate", "x"},
                                                                 {"--force=1", "x"}})
        EXPECT_FALSE(parseOptions(bad, 2, true).options) << (bad.empty() ? "" : bad[0]);
}

}  // namespace
}  // namespace velquin::scan
