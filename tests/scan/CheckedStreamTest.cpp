// The stream TagLib writes through, moving data by more than its megabyte buffer in both directions.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <string>

#include "scan/CheckedStream.h"
#include "support/TestSupport.h"

namespace velquin::scan {
namespace {

using test::readAll;

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

}  // namespace
}  // namespace velquin::scan
