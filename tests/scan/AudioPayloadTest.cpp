// The proof of a copy catching damage that TagLib, which the end-to-end test drives, does not cause.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <tuple>

#include "scan/AudioPayload.h"
#include "support/TestSupport.h"

namespace velquin::scan {
namespace {

using test::readAll;

using namespace std::string_literals;

TEST(AudioPayload, ACopyWithDamagedOrMissingAudioIsCaught) {
    test::TempDir dir;
    for (const auto& [name, codec, container] : {std::tuple{"a.mp3", "", Container::mpeg},
                                                 {"a.flac", "", Container::flac},
                                                 {"a.wav", "", Container::wav},
                                                 {"a.aiff", "", Container::aiff},
                                                 {"a.ogg", "-c:a libvorbis", Container::oggVorbis},
                                                 {"a.m4a", "-c:a aac", Container::mp4}}) {
        SCOPED_TRACE(name);
        const std::string original = (dir / name).string(), copy = original + ".copy";
        const std::string make = "ffmpeg -nostdin -v error -y -f lavfi -i sine=frequency=440:duration=2 "s +
                                 codec + " '" + original + "'";
        ASSERT_EQ(std::system(make.c_str()), 0);
        const int from = ::open(original.c_str(), O_RDONLY);
        const std::string bytes = readAll(from);
        const auto check = [&](const std::string& content) {
            const int to = ::open(copy.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
            EXPECT_EQ(::write(to, content.data(), content.size()), static_cast<ssize_t>(content.size()));
            const bool same = !compareAudio(container, from, to);
            ::close(to);
            return same;
        };
        EXPECT_TRUE(check(bytes));
        std::string flipped = bytes;
        flipped[flipped.size() * 2 / 3] ^= 0x10;  // well inside the audio of every one of these layouts
        EXPECT_FALSE(check(flipped)) << "one changed byte";
        EXPECT_FALSE(check(bytes.substr(0, bytes.size() - 300))) << "a cut-off end";
        ::close(from);
    }
}

}  // namespace
}  // namespace velquin::scan
