// Containers told apart by their first bytes, in cases no encoder at hand produces: junk before MP3
// frames, raw AAC, an ID3 tag in front of FLAC.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "scan/Container.h"
#include "support/TestSupport.h"

namespace velquin::scan {
namespace {

using namespace std::string_literals;

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

}  // namespace
}  // namespace velquin::scan
