#include "FileWalker.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <set>
#include <string_view>
#include <utility>

#include "TagWriter.h"

namespace velquin::scan {

namespace {

constexpr std::array<std::string_view, 19> kExtensions = {"mp3", "m4a", "aac",  "flac", "ogg", "oga", "opus",
                                                          "wav", "aif", "aiff", "wma",  "ape", "wv",  "mka",
                                                          "mp4", "m4v", "mov",  "mkv",  "webm"};

std::string lowercase(std::string_view text) {
    std::string result(text);
    for (char& c : result)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return result;
}

class Walker {
  public:
    Walker(std::vector<std::string>& files, const std::function<void(const std::string&)>& warn)
        : files_(files), warn_(warn) {}

    void walk(const std::string& folder, const struct stat& info) {
        // A folder seen before is reached again through a symbolic link: a loop, or a second way
        // into the same tree. Either way its files are already listed.
        if (!visited_.insert({info.st_dev, info.st_ino}).second) {
            warn_("skipped " + folder + ": already searched (a symbolic link loop or a second path to it)");
            return;
        }
        DIR* dir = ::opendir(folder.c_str());
        if (dir == nullptr) {
            warn_("skipped " + folder + ": " + std::strerror(errno));
            return;
        }
        std::vector<std::string> names;
        while (const dirent* entry = ::readdir(dir)) names.emplace_back(entry->d_name);
        ::closedir(dir);
        std::sort(names.begin(), names.end());

        const std::string prefix = folder.ends_with('/') ? folder : folder + "/";
        for (const std::string& name : names) {
            if (name.starts_with('.')) {
                removeIfStaleTagCopy(prefix + name);
                continue;
            }
            const std::string path = prefix + name;
            struct stat child {};
            if (::stat(path.c_str(), &child) != 0) continue;  // a dangling link
            if (S_ISDIR(child.st_mode))
                walk(path, child);
            else if (S_ISREG(child.st_mode) && isAudioFileName(name))
                files_.push_back(path);
        }
    }

  private:
    std::vector<std::string>& files_;
    const std::function<void(const std::string&)>& warn_;
    std::set<std::pair<dev_t, ino_t>> visited_;
};

}  // namespace

bool isAudioFileName(const std::string& name) {
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot + 1 == name.size()) return false;
    const std::string extension = lowercase(std::string_view(name).substr(dot + 1));
    return std::find(kExtensions.begin(), kExtensions.end(), extension) != kExtensions.end();
}

std::vector<std::string> findAudioFiles(const std::vector<std::string>& roots,
                                        const std::function<void(const std::string&)>& warn) {
    std::vector<std::string> files;
    Walker walker(files, warn);
    for (const std::string& root : roots) {
        struct stat info {};
        if (::stat(root.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
            walker.walk(root, info);
        else
            files.push_back(root);
    }
    std::sort(files.begin(), files.end());
    files.erase(std::unique(files.begin(), files.end()), files.end());
    return files;
}

}  // namespace velquin::scan
