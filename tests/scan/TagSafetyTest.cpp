// What the tag writer's end-to-end test cannot reach: the stream TagLib writes through moving data by
// more than its megabyte buffer in both directions; containers told apart by their first bytes in cases
// no encoder at hand produces (junk before MP3 frames, raw AAC, an ID3 tag in front of FLAC); and the
// proof of a copy catching damage that TagLib, which the end-to-end test drives, does not cause.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <string>
#include <tuple>

#include "scan/AudioPayload.h"
#include "scan/CheckedStream.h"
#include "scan/Container.h"
#include "support/TestSupport.h"

namespace velquin::scan {
namespace {

using namespace std::string_literals;

std::string readAll(int fd) {
    std::string data(static_cast<size_t>(::lseek(fd, 0, SEEK_END)), '\0');
    EXPECT_EQ(::pread(fd, data.data(), data.size(), 0), static_cast<ssize_t>(data.size()));
    return data;
}

TEST(CheckedStream, InsertsAndRemovesLikeAByteString) {
    test::TempDir dir;
    const std::string path = (dir / "f").string();
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    std::mt19937 random(7);
    std::string model(3'000'000, '\0');
    for (char& c : model) c = static_cast<char>(random());
    ASSERT_EQ(::pwrite(fd, model.data(), model.size(), 0), static_cast<ssize_t>(model.size()));
    CheckedStream stream(fd, path, false);
    struct Edit {
        unsigned long start, replace, length;
    };
    // Growth and shrinkage by more than the 1 MiB buffer, near the start, the middle and the end, and a
    // replacement running past the end.
    for (const Edit e : {Edit{0, 0, 4096}, Edit{10, 5000, 1'500'000}, Edit{2'000'000, 1'200'000, 7},
                         Edit{100, 0, 0}, Edit{model.size() - 3, 3, 10}, Edit{3'299'100, 50, 2}}) {
        const std::string data(e.length, static_cast<char>('a' + e.length % 26));
        stream.insert(TagLib::ByteVector(data.data(), static_cast<unsigned>(data.size())), e.start,
                      e.replace);
        model.replace(e.start, e.replace, data);
        ASSERT_EQ(readAll(fd), model) << e.start << " " << e.replace << " " << e.length;
    }
    stream.removeBlock(5, 2'500'000);
    model.erase(5, 2'500'000);
    EXPECT_EQ(readAll(fd), model);
    EXPECT_EQ(stream.error(), "");

    CheckedStream readOnly(fd, path, true);
    readOnly.writeBlock(TagLib::ByteVector("x", 1));
    EXPECT_NE(readOnly.error(), "") << "a write that did not happen is an error";
    ::close(fd);
}

TEST(Container, IsToldByTheFirstBytes) {
    test::TempDir dir;
    const auto sniff = [&](const std::string& bytes) {
        const std::string path = (dir / "x").string();
        const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        EXPECT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        const Container found = sniffContainer(fd);
        ::close(fd);
        return found;
    };
    // MPEG-1 layer III, 128 kb/s, 44.1 kHz: 417 bytes a frame.
    const std::string frame = std::string("\xFF\xFB\x90\x00", 4) + std::string(413, '\x11');
    const std::string id3 = std::string("ID3\x03\x00\x00\x00\x00\x00\x05", 10) + std::string(5, '\0');
    EXPECT_EQ(sniff(frame + frame), Container::mpeg);
    EXPECT_EQ(sniff(std::string(1000, '\0') + frame + frame), Container::mpeg) << "junk before the frames";
    EXPECT_EQ(sniff(id3 + frame), Container::mpeg);
    EXPECT_EQ(sniff(frame + std::string(500, '\x22')), Container::unknown)
        << "one frame alone proves nothing";
    EXPECT_EQ(sniff(id3 + "fLaC" + std::string(40, '\0')), Container::flac);
    EXPECT_EQ(sniff(std::string("\xFF\xF1\x50\x80\x02\x1F\xFC", 7) + std::string(100, '\0')),
              Container::adts);
    EXPECT_EQ(sniff(std::string("\x1A\x45\xDF\xA3", 4) + std::string(60, '\0')), Container::matroska);
    EXPECT_EQ(sniff("RIFF\x10\0\0\0WAVEfmt "s), Container::wav);
    EXPECT_EQ(sniff("FORM\0\0\0\x10"
                    "AIFCCOMM"s),
              Container::aiff);
    EXPECT_EQ(sniff("\0\0\0\x18"
                    "ftypM4A "s),
              Container::mp4);
    EXPECT_EQ(sniff(""), Container::unknown);
    EXPECT_EQ(sniff("ID3\x04"), Container::unknown) << "a truncated tag";
}

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
