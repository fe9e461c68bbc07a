// Tags as another program reads them back, through TagLib. Damage, races and kills are TagSafetyTest's
// and tag-e2e.sh's.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <taglib/fileref.h>
#include <taglib/mp4file.h>
#include <taglib/tpropertymap.h>

#include <cstdlib>
#include <filesystem>

#include "scan/TagWriter.h"
#include "support/TestSupport.h"

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

// A key the bar would not show is not written either; the tempo still is, and the note says why.
TEST(TagWriter, AWeakKeyIsLeftOutAndSaysSo) {
    test::TempDir dir;
    const fs::path file = dir / "a.flac";
    ASSERT_TRUE(makeAudio(file, ""));
    KeyEstimate key = KeyEstimate::unknown;
    key.key = MusicalKey{10, false};
    key.confidence = 0.3;
    const TagOutcome outcome = writeTags(file, {127.6, 0.9, 0.1}, key, {false, false});
    EXPECT_EQ(outcome.failure, "");
    EXPECT_EQ(outcome.notes, std::vector<std::string>{"key not written: confidence 30 %"});
    const auto tags = propertiesOf(file);
    EXPECT_EQ(property(tags, "INITIALKEY"), "");
    EXPECT_EQ(property(tags, "BPM"), "128");
}

}  // namespace
}  // namespace velquin::scan
