#pragma once
// A file the program writes for the user (a CSV dump, a recording), replaced whole: the bytes go to a
// temporary file beside the target, created exclusively with the mode the umask gives, and are renamed
// over the target only once complete. Nothing that is not ours to replace is written through: a target
// that exists and is not a regular file, or is read-only, is refused before anything is created. A
// symbolic link is followed, so the file it names is replaced and the link stays.

#include <stdexcept>
#include <string>
#include <string_view>

namespace velquin {

// what() is "could not write PATH: REASON"; reason() is REASON alone.
class OutputFileError : public std::runtime_error {
  public:
    OutputFileError(const std::string& path, std::string reason);
    const std::string& reason() const { return reason_; }

  private:
    std::string reason_;
};

class OutputFile {
  public:
    // Creates the temporary file; throws OutputFileError. `path` is kept as given, for messages.
    explicit OutputFile(std::string path);
    ~OutputFile();  // removes the temporary file unless committed
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // The temporary file's descriptor, open for writing and seeking until commit().
    int descriptor() const { return fd_; }
    void write(std::string_view bytes);  // throws OutputFileError
    // Closes the temporary file and renames it over the target; throws OutputFileError (the
    // temporary file is then gone).
    void commit();
    const std::string& path() const { return path_; }

    // True when both paths name the same existing file (through links or other spellings).
    static bool sameFile(const std::string& a, const std::string& b);

  private:
    [[noreturn]] void fail(int error);

    std::string path_;
    std::string target_;
    std::string temp_;
    int fd_ = -1;
};

}  // namespace velquin
