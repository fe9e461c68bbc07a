#include "scan/TagWriter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>

#include "analysis/Confidence.h"
#include "analysis/Format.h"
#include "scan/AudioPayload.h"
#include "scan/CheckedStream.h"
#include "scan/Container.h"
#include "scan/TagCopy.h"
#include "scan/TagFields.h"

namespace velquin::scan {

namespace {

namespace fs = std::filesystem;

std::string errnoText() {
    return std::strerror(errno);
}

std::string notTagged(const std::string& why) {
    return "not tagged: " + why;
}

// What identifies the file's content: any edit changes the size or a time, a replacement the inode.
bool sameFile(const struct stat& a, const struct stat& b) {
    const auto same = [](const timespec& x, const timespec& y) {
        return x.tv_sec == y.tv_sec && x.tv_nsec == y.tv_nsec;
    };
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           same(a.st_mtim, b.st_mtim) && same(a.st_ctim, b.st_ctim);
}

// Two names of one file are tagged one after the other, never at once (each would undo the other).
class InodeTurn {
  public:
    explicit InodeTurn(const struct stat& info) : inode_(info.st_dev, info.st_ino) {
        std::unique_lock lock(mutex_);
        free_.wait(lock, [&] { return busy_.count(inode_) == 0; });
        busy_.insert(inode_);
    }
    ~InodeTurn() {
        std::lock_guard lock(mutex_);
        busy_.erase(inode_);
        free_.notify_all();
    }
    InodeTurn(const InodeTurn&) = delete;
    InodeTurn& operator=(const InodeTurn&) = delete;

  private:
    std::pair<dev_t, ino_t> inode_;
    static inline std::mutex mutex_;
    static inline std::condition_variable free_;
    static inline std::set<std::pair<dev_t, ino_t>> busy_;  // guarded by mutex_
};

class FileDescriptor {
  public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

TagValues valuesFor(const TempoEstimate& tempo, const KeyEstimate& key, const TagRequest& request,
                    std::vector<std::string>& notes) {
    TagValues values;
    if (tempo.bpm > 0)
        values.bpm = static_cast<int>(std::lround(tempo.bpm));
    else
        notes.emplace_back("BPM not written: no tempo");
    if (key.key && key.confidence >= weakConfidence) {
        const std::string name = tagKeyName(*key.key), camelot = key.key->camelot();
        values.key = request.camelot ? camelot : name;
        values.otherKey = request.camelot ? name : camelot;
        values.otherField = request.camelot ? "KEY" : "CAMELOT";
        values.staleField = request.camelot ? "CAMELOT" : "KEY";
    } else {
        // In the table's whole percent, where 34.6 shows as 35 although it is below the bar's 35.
        const double percent = key.confidence * 100;
        notes.push_back(!key.key ? std::string("key not written: no key")
                        : std::lround(percent) < 35
                            ? format("key not written: confidence %.0f %%", percent)
                            : std::string("key not written: confidence just under 35 %"));
    }
    return values;
}

// The article and extension for "with an .mp3 name".
std::string nameDescription(const fs::path& path) {
    const std::string extension = path.extension().string();
    const bool vowelSound = extension.size() > 1 && std::strchr("aeioufhlmnrsxAEIOUFHLMNRSX", extension[1]) &&
                            extension != ".flac" && extension != ".mov";
    return (vowelSound ? "an " : "a ") + extension + " name";
}

// Why the container cannot be tagged, or nothing when it can.
std::optional<std::string> untaggable(Container container, const fs::path& path) {
    if (canTag(container)) return std::nullopt;
    const auto promised = containerOfName(path.string());
    if (promised && canTag(*promised))
        return "it is " + describe(container) + " with " + nameDescription(path);
    return std::string(container == Container::unknown ? "unrecognised container" : "unsupported container");
}

bool alreadyHolds(Container container, int fd, const std::string& name, const TagValues& values) {
    CheckedStream stream(fd, name, true);
    const auto file = openTagFile(container, &stream);
    return file && tagsHold(*file, values) && stream.error().empty();
}

// Tags the copy through a stream that notices every failed write, and flushes it.
std::optional<std::string> tagCopy(Container container, int fd, const TagValues& values) {
    CheckedStream stream(fd, "copy", false);
    {
        const auto file = openTagFile(container, &stream);
        if (!file) return std::string("TagLib cannot read the file");
        if (auto why = applyTagValues(*file, values)) return why;
    }
    if (!stream.error().empty()) return stream.error();
    if (::fsync(fd) != 0) return "could not flush the copy: " + errnoText();
    return std::nullopt;
}

// The copy must be the same container, hold the fields, and carry the original's audio.
std::optional<std::string> proveCopy(Container container, int original, int copy, const TagValues& values) {
    if (sniffContainer(copy) != container)
        return std::string("the tagged copy is no longer " + describe(container));
    if (!alreadyHolds(container, copy, "copy", values))
        return std::string("the tagged copy does not read back");
    return compareAudio(container, original, copy);
}

// Waits (ten seconds at most) while another process writes its ready copy of the file back.
void waitForOtherWriter(const fs::path& target, ino_t inode) {
    const fs::path ready = target.parent_path() / (".velquin-ready-" + std::to_string(inode));
    struct stat info {};
    for (int i = 0; i < 1000 && ::lstat(ready.c_str(), &info) == 0; ++i) ::usleep(10'000);
}

// Another scan tagging the same file at the same time changes it too: that is no failure when the
// file now holds what this one would have written.
// `inode` names the ready copy of another writer to wait for; none when the ready copy is this one's.
std::optional<std::string> changedMeanwhile(const fs::path& target, std::optional<ino_t> inode,
                                            const TagValues& values) {
    if (inode) waitForOtherWriter(target, *inode);
    const FileDescriptor fd(::open(target.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() >= 0 && alreadyHolds(sniffContainer(fd.get()), fd.get(), target.string(), values))
        return std::nullopt;
    return std::string("it changed while being tagged");
}

std::optional<std::string> tagFile(const fs::path& target, const TagValues& values, bool touch) {
    struct stat before {};
    if (::stat(target.c_str(), &before) != 0) return errnoText();
    InodeTurn turn(before);
    finishLeftCopy(target, before.st_ino);  // a write back cut short by a kill comes first
    const FileDescriptor source(::open(target.c_str(), O_RDONLY | O_CLOEXEC));
    if (source.get() < 0 || ::fstat(source.get(), &before) != 0) return errnoText();
    if (!S_ISREG(before.st_mode)) return std::string("not a regular file");
    const Container container = sniffContainer(source.get());
    if (auto why = untaggable(container, target)) return why;
    if (auto why = unsafeForTagLib(container, source.get())) return why;
    // A library scanned again is neither copied nor opened for writing.
    if (alreadyHolds(container, source.get(), target.string(), values)) return std::nullopt;
    if ((before.st_mode & S_IWUSR) == 0 || ::access(target.c_str(), W_OK) != 0)
        return std::string("read-only file");
    // Only the owner may set a file's times; a rewritten file of someone else's would look new.
    if (!touch && ::geteuid() != 0 && ::geteuid() != before.st_uid)
        return std::string(
            "it belongs to another user, so its modification time cannot be kept (--touch gives it a new "
            "one)");

    TagCopy copy(target.parent_path());
    if (!copy.valid()) return "cannot write in its folder: " + errnoText();
    if (!copyWhole(source.get(), copy.fd())) return "could not copy the file: " + errnoText();
    const auto unchanged = [&](int fd) {
        struct stat now {};
        return ::stat(target.c_str(), &now) == 0 && sameFile(before, now) && ::fstat(fd, &now) == 0 &&
               sameFile(before, now);
    };
    // A copy that fails its proof because the file changed under it says so.
    const auto failed = [&](const std::string& why) {
        return unchanged(source.get()) ? std::optional(why) : changedMeanwhile(target, before.st_ino, values);
    };
    if (auto why = tagCopy(container, copy.fd(), values)) return failed(*why);
    if (auto why = proveCopy(container, source.get(), copy.fd(), values)) return failed(*why);
    // Looked at before the copy is marked ready (a kill after that has the next scan write it in) and
    // again after, just before the write back.
    const FileDescriptor file(::open(target.c_str(), O_RDWR | O_CLOEXEC));
    if (file.get() < 0) return "cannot open it for writing: " + errnoText();
    if (!unchanged(source.get()) || !unchanged(file.get()))
        return changedMeanwhile(target, before.st_ino, values);
    if (!copy.markReady(before.st_ino)) {
        if (errno != EEXIST) return "cannot write in its folder: " + errnoText();
        return changedMeanwhile(target, before.st_ino, values);
    }
    if (!unchanged(source.get()) || !unchanged(file.get()))
        return changedMeanwhile(target, std::nullopt, values);
    const struct timespec times[2] = {before.st_atim, before.st_mtim};
    return copy.writeInto(file.get(), touch ? nullptr : times);
}

}  // namespace

std::string tagKeyName(const MusicalKey& key) {
    std::string name = key.shortName();
    for (const auto& [sign, ascii] : {std::pair<std::string_view, std::string_view>{"♭", "b"}, {"♯", "#"}}) {
        for (size_t at = name.find(sign); at != std::string::npos; at = name.find(sign, at))
            name.replace(at, sign.size(), ascii);
    }
    return name;
}

TagOutcome writeTags(const std::string& path, const TempoEstimate& tempo, const KeyEstimate& key,
                     const TagRequest& request) {
    TagOutcome outcome;
    const TagValues values = valuesFor(tempo, key, request, outcome.notes);
    if (!values.bpm && !values.key) return outcome;  // nothing worth writing
    // A symbolic link stays a link: the file it points to is the one tagged.
    std::error_code error;
    const fs::path target = fs::canonical(path, error);
    if (error) {
        outcome.failure = notTagged(error.message());
        return outcome;
    }
    if (auto why = tagFile(target, values, request.touch))
        outcome.failure = why->starts_with("tagged") ? *why : notTagged(*why);
    return outcome;
}

}  // namespace velquin::scan
