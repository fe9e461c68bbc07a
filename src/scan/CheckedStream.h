#pragma once
// A TagLib stream over a file descriptor that remembers its first failed read, write or flush. TagLib's
// own file stream drops write errors (a disk filled by a grown tag leaves a truncated file that TagLib
// calls saved), so the writer asks this stream instead.

#include <taglib/tiostream.h>

#include <string>

namespace velquin::scan {

class CheckedStream : public TagLib::IOStream {
  public:
    // Does not own `fd`. `name` is only for TagLib's messages.
    CheckedStream(int fd, std::string name, bool readOnly);

    // The first error's text, or empty.
    const std::string& error() const { return error_; }

    TagLib::FileName name() const override;
    TagLib::ByteVector readBlock(unsigned long length) override;
    void writeBlock(const TagLib::ByteVector& data) override;
    void insert(const TagLib::ByteVector& data, unsigned long start = 0, unsigned long replace = 0) override;
    void removeBlock(unsigned long start = 0, unsigned long length = 0) override;
    bool readOnly() const override { return readOnly_; }
    bool isOpen() const override { return fd_ >= 0; }
    void seek(long offset, Position position = Beginning) override;
    long tell() const override { return position_; }
    long length() override;
    void truncate(long length) override;

  private:
    bool readAt(long offset, char* data, size_t size, size_t& got);
    bool writeAt(long offset, const char* data, size_t size);
    void fail(const char* what);

    int fd_;
    std::string name_;
    bool readOnly_;
    long position_ = 0;
    std::string error_;
};

}  // namespace velquin::scan
