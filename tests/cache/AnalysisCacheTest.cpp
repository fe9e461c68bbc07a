#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <vector>

#include "cache/AnalysisCache.h"
#include "support/TestSupport.h"

namespace velquin {
namespace {

namespace fs = std::filesystem;

AnalysisCache::Key someKey() {
    AnalysisCache::Key key;
    key.path = "/music/a.flac";
    key.size = 1000;
    key.mtimeNs = 123456789;
    key.inode = 77;
    key.ctimeNs = 123456999;
    return key;
}

TEST(AnalysisCache, FindsAnEntryOnlyWhenEveryPartOfTheKeyMatches) {
    test::TempDir dir;
    const AnalysisCache::Key key = someKey();
    FileResult entry;
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
    auto changed = std::vector<AnalysisCache::Key>(8, key);
    changed[0].path = "/music/b.flac";
    changed[1].size = 1001;
    changed[2].mtimeNs = 123456790;
    changed[3].version = key.version + 1;
    changed[4].range = TempoRange::fast;
    changed[5].inode = 78;  // another file put in its place
    changed[6].ctimeNs = 123457000;
    changed[7].analysis = fileAnalysis::Analysis::precise;
    for (size_t i = 0; i < changed.size(); ++i) EXPECT_FALSE(cache.lookup(changed[i])) << "change " << i;
}

TEST(AnalysisCache, ThePreciseAnalysisKeepsItsOwnEntries) {
    test::TempDir dir;
    AnalysisCache cache(dir / "scan.sqlite");
    const AnalysisCache::Key specified = someKey();
    AnalysisCache::Key precise = specified;
    precise.analysis = fileAnalysis::Analysis::precise;
    FileResult a, b;
    a.tempo.bpm = 120;
    b.tempo.bpm = 180;
    cache.store(specified, a);
    EXPECT_FALSE(cache.lookup(precise));
    cache.store(precise, b);
    ASSERT_TRUE(cache.lookup(specified) && cache.lookup(precise));
    EXPECT_EQ(cache.lookup(specified)->tempo.bpm, 120);
    EXPECT_EQ(cache.lookup(precise)->tempo.bpm, 180);
}

TEST(AnalysisCache, AFilesKeyNamesItWhereverItIsReachedFromAndMissesOnceItIsReplaced) {
    test::TempDir dir;
    const fs::path file = dir / "a.flac";
    std::ofstream(file) << "first";
    fs::create_symlink(file, dir / "link.flac");
    const auto direct =
        AnalysisCache::keyForFile(file.string(), TempoRange::slow, fileAnalysis::Analysis::precise);
    const auto linked = AnalysisCache::keyForFile((dir / "link.flac").string(), TempoRange::slow,
                                                  fileAnalysis::Analysis::precise);
    ASSERT_TRUE(direct && linked);
    EXPECT_EQ(*direct, *linked);
    EXPECT_EQ(direct->path, fs::canonical(file).string());
    EXPECT_EQ(direct->size, 5);
    EXPECT_EQ(direct->range, TempoRange::slow);
    EXPECT_EQ(direct->analysis, fileAnalysis::Analysis::precise);
    // Each analysis has its own version, so a change to one recomputes only its own results.
    EXPECT_EQ(direct->version, fileAnalysis::analysisVersion(fileAnalysis::Analysis::precise));
    EXPECT_NE(direct->version,
              AnalysisCache::keyForFile(file.string(), TempoRange::slow, fileAnalysis::Analysis::specified)
                  ->version);

    // Written beside and renamed over it, as editors and taggers do: same name, size and maybe time.
    std::ofstream(dir / "new") << "other";
    fs::rename(dir / "new", file);
    const auto replaced =
        AnalysisCache::keyForFile(file.string(), TempoRange::slow, fileAnalysis::Analysis::precise);
    ASSERT_TRUE(replaced);
    EXPECT_NE(*replaced, *direct);

    EXPECT_FALSE(AnalysisCache::keyForFile((dir / "absent.flac").string(), TempoRange::Auto,
                                           fileAnalysis::Analysis::specified));
}

}  // namespace
}  // namespace velquin
