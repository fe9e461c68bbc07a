#pragma once
// The hidden copy a file is tagged in, beside it in its folder. It lives in two stages:
//   ".velquin-tag-XXXXXX"   being made; removed when its writer is gone (killed, or stopped);
//   ".velquin-ready-INODE"  proven whole and now being written back into the file of that inode. A
//                            writer killed here leaves the file half rewritten, so whoever finds the
//                            copy with its writer gone finishes the write, then removes it.
// Each writer holds a lock on its copy for as long as it lives: a lock that can be taken means that the
// writer is gone. The short fixed names fit in any folder whatever the length of the file's name.

#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>

namespace velquin::scan {

class TagCopy {
  public:
    // Creates the copy in `folder`; check valid() (errno says why not).
    explicit TagCopy(const std::filesystem::path& folder);
    ~TagCopy();  // removes the copy unless it was written back
    TagCopy(const TagCopy&) = delete;
    TagCopy& operator=(const TagCopy&) = delete;

    bool valid() const { return fd_ >= 0; }
    int fd() const { return fd_; }

    // Gives the copy its "ready" name for the file of inode `inode`; false (errno) when it cannot,
    // EEXIST meaning another process is writing that file back.
    bool markReady(ino_t inode);

    // Writes the copy into `targetFd` (the file itself, opened for writing) where the two differ, with
    // `times` (or the present time when null) for access and modification; then flushes the file and
    // removes the copy. Returns why it could not; the ready copy is then kept for the next run.
    std::optional<std::string> writeInto(int targetFd, const struct timespec* times);

  private:
    std::filesystem::path folder_;
    std::string name_;
    int fd_ = -1;
    bool ready_ = false;
    bool done_ = false;
};

// Copies all of `from` into `to` from their start; false (errno) on any failure.
bool copyWhole(int from, int to);

// Removes every copy still being made, and keeps further ones from being made; ready copies are left
// for the next run. For an exit that cannot wait for the workers; call it from an ordinary thread.
void abandonTagCopies();

// For a hidden name met in a folder: a copy whose writer is gone is removed, or, when ready, written
// into its file first. Anything else is left alone.
void removeIfStaleTagCopy(const std::string& path);

// The same for the ready copy of the file `target` (inode `inode`), if one was left.
void finishLeftCopy(const std::filesystem::path& target, ino_t inode);

}  // namespace velquin::scan
