#include "scan/FileWalker.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>

#include "scan/TagWriter.h"

namespace velquin::scan {

namespace {

constexpr std::array<std::string_view, 19> audioExtensions = {
    "mp3", "m4a", "aac", "flac", "ogg", "oga", "opus", "wav", "aif", "aiff",
    "wma", "ape", "wv",  "mka",  "mp4", "m4v", "mov",  "mkv", "webm"};

std::string lowercase(std::string_view text) {
    std::string result(text);
    for (char& c : result)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return result;
}

// File systems that show the kernel's state rather than files. /proc alone links to the working folder
// and root of every process, so a walk that entered it would list the whole machine.
struct SystemFileSystem {
    std::uint32_t magic;  // statfs's f_type
    const char* name;
};
constexpr SystemFileSystem systemFileSystems[] = {
    {0x9fa0, "proc"},           {0x62656572, "sysfs"},    {0x27e0eb, "cgroup"},
    {0x63677270, "cgroup2"},    {0x64626720, "debugfs"},  {0x74726163, "tracefs"},
    {0x73636673, "securityfs"}, {0x6165676C, "pstore"},   {0xcafe4a11, "bpf"},
    {0x62656570, "configfs"},   {0x1cd1, "devpts"},       {0x19800202, "mqueue"},
    {0x958458f6, "hugetlbfs"},  {0x65735543, "fusectl"},  {0xf97cff8c, "selinuxfs"},
    {0x43415d53, "smackfs"},    {0xde5e81e4, "efivarfs"}, {0x42494e4d, "binfmt_misc"},
    {0x6e736673, "nsfs"},       {0x50495045, "pipefs"},
};
constexpr std::uint32_t tmpfsMagic = 0x01021994;

// devtmpfs (/dev) has tmpfs's magic number, and tmpfs is an ordinary place for files: only the mount
// table tells them apart.
std::set<dev_t> devtmpfsDevices() {
    std::set<dev_t> devices;
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; std::getline(table, line);) {
        // "36 35 0:5 / /dev rw,nosuid - devtmpfs udev rw,…": the device is the third field, the type
        // the first after the " - " separator.
        std::istringstream fields(line);
        std::string id, parent, device;
        fields >> id >> parent >> device;
        const size_t separator = line.find(" - ");
        unsigned major = 0, minor = 0;
        if (separator == std::string::npos || std::sscanf(device.c_str(), "%u:%u", &major, &minor) != 2)
            continue;
        if (line.compare(separator + 3, 9, "devtmpfs ") == 0) devices.insert(makedev(major, minor));
    }
    return devices;
}

class Walker {
  public:
    Walker(FoundFiles& found, const std::function<void(const std::string&)>& warn)
        : found_(found), warn_(warn) {}

    void walk(const std::string& folder, const struct stat& info) {
        // A folder seen before is reached again through a symbolic link: a loop, or a second way
        // into the same tree. Either way its files are already listed.
        if (!visited_.insert({info.st_dev, info.st_ino}).second) {
            warn_("skipped " + folder + ": already searched (a symbolic link loop or a second path to it)");
            return;
        }
        if (const char* system = systemFileSystem(folder, info)) {
            skip(folder, std::string("a ") + system + " file system, which holds no files to analyse");
            return;
        }
        DIR* dir = ::opendir(folder.c_str());
        if (dir == nullptr) {
            skip(folder, reason(errno));
            return;
        }
        std::vector<std::pair<std::string, unsigned char>> entries;
        errno = 0;
        while (const dirent* entry = ::readdir(dir)) entries.emplace_back(entry->d_name, entry->d_type);
        const int readError = errno;
        ::closedir(dir);
        if (readError != 0) skip(folder, "could not be read to the end: " + reason(readError));
        std::sort(entries.begin(), entries.end());

        const std::string prefix = folder.ends_with('/') ? folder : folder + "/";
        for (const auto& [name, type] : entries) {
            if (name.starts_with('.')) {
                removeIfStaleTagCopy(prefix + name);
                continue;
            }
            const std::string path = prefix + name;
            struct stat child {};
            if (::stat(path.c_str(), &child) != 0) {
                // Only what the walk would have listed or entered counts as missed.
                if (type != DT_REG || isAudioFileName(name)) skip(path, statFailure(path, errno));
                continue;
            }
            if (S_ISDIR(child.st_mode))
                walk(path, child);
            else if (S_ISREG(child.st_mode) && isAudioFileName(name))
                found_.files.push_back(path);
        }
    }

  private:
    void skip(const std::string& path, const std::string& why) {
        warn_("skipped " + path + ": " + why);
        ++found_.skipped;
    }

    static std::string reason(int error) {
        if (error == ENAMETOOLONG) return "the path is longer than the system allows";
        return std::strerror(error);
    }

    static std::string statFailure(const std::string& path, int error) {
        struct stat link {};
        if (error == ENOENT && ::lstat(path.c_str(), &link) == 0 && S_ISLNK(link.st_mode))
            return "a symbolic link to nothing";
        return reason(error);
    }

    // The name of the system file system the folder is on, or null for one that holds files.
    const char* systemFileSystem(const std::string& folder, const struct stat& info) {
        struct statfs fs {};
        if (::statfs(folder.c_str(), &fs) != 0) return nullptr;  // opendir will say what is wrong
        // f_type is a signed word of the platform's size; the magic numbers are 32 bits.
        const auto type = static_cast<std::uint32_t>(fs.f_type);
        for (const auto& system : systemFileSystems)
            if (type == system.magic) return system.name;
        if (type == tmpfsMagic) {
            if (!devtmpfs_) devtmpfs_ = devtmpfsDevices();
            if (devtmpfs_->contains(info.st_dev)) return "devtmpfs";
        }
        return nullptr;
    }

    FoundFiles& found_;
    const std::function<void(const std::string&)>& warn_;
    std::set<std::pair<dev_t, ino_t>> visited_;
    std::optional<std::set<dev_t>> devtmpfs_;  // read on the first tmpfs folder
};

}  // namespace

bool isAudioFileName(const std::string& name) {
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot + 1 == name.size()) return false;
    const std::string extension = lowercase(std::string_view(name).substr(dot + 1));
    return std::find(audioExtensions.begin(), audioExtensions.end(), extension) != audioExtensions.end();
}

FoundFiles findAudioFiles(const std::vector<std::string>& roots,
                          const std::function<void(const std::string&)>& warn) {
    FoundFiles found;
    Walker walker(found, warn);
    for (const std::string& root : roots) {
        struct stat info {};
        if (::stat(root.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
            walker.walk(root, info);
        else
            found.files.push_back(root);
    }
    auto& files = found.files;
    std::sort(files.begin(), files.end());
    files.erase(std::unique(files.begin(), files.end()), files.end());
    return found;
}

}  // namespace velquin::scan
