#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "scan/FileWalker.h"
#include "support/TestSupport.h"

namespace velquin::scan {
namespace {

namespace fs = std::filesystem;

TEST(FileWalker, FindsAudioByAnyCaseOfItsExtensionAndEntersAFolderOnceUnderItsFirstName) {
    EXPECT_TRUE(isAudioFileName("a.mp3") && isAudioFileName("B.OGG") && isAudioFileName("c.Flac"));
    EXPECT_FALSE(isAudioFileName("mp3") || isAudioFileName("a.") || isAudioFileName("a.mp3.txt"));

    test::TempDir dir;
    // "z" is made first, so that a directory listing in creation order would meet "y", its second name,
    // ahead of it; the walk goes by name.
    fs::create_directory(dir / "z");
    for (const char* name : {"Song.MP3", "x.Flac", "notes.txt", ".hidden.mp3"})
        std::ofstream(dir / "z" / name) << "x";
    fs::create_directory_symlink(dir / "z", dir / "zz");
    fs::create_directory_symlink(dir / "z", dir / "y");
    std::vector<std::string> warnings;
    const FoundFiles found =
        findAudioFiles({dir.path().string()}, [&](const std::string& w) { warnings.push_back(w); });
    const std::string y = (dir / "y").string();
    EXPECT_EQ(found.files, (std::vector<std::string>{y + "/Song.MP3", y + "/x.Flac"}));
    EXPECT_EQ(found.skipped, 0u);
    ASSERT_EQ(warnings.size(), 2u);
    for (const auto& warning : warnings) EXPECT_EQ(warning.find(y), std::string::npos) << warning;
}

}  // namespace
}  // namespace velquin::scan
