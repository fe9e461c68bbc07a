// Preloaded into velquin-scan by tag-e2e.sh to make the moments a tag writer must survive happen on
// cue. Each is asked for by an environment variable and happens once:
//   SHIM_EDIT_FILE=PATH    another program appends to PATH just before a tagged copy is renamed
//   SHIM_FSYNC_EIO=1       flushing a tagged copy fails
//   SHIM_KILL_MIDWRITE=1   the process is killed half way through its first write into a file that is
//                          not a copy, once a copy has been renamed (the write back of a proven copy)
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int renamed;

// Stores the next definition of `name` in the function pointer at `slot`. ISO C has no conversion
// from dlsym's object pointer to a function pointer; POSIX makes copying the bytes well defined.
static void findNext(void* slot, const char* name) {
    void* found = dlsym(RTLD_NEXT, name);
    memcpy(slot, &found, sizeof found);
}

static int isCopy(int fd) {
    char link[64], path[4096];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = readlink(link, path, sizeof path - 1);
    if (n <= 0) return 0;
    path[n] = 0;
    return strstr(path, ".velquin-") != NULL;
}

static void editBefore(const char* from) {
    const char* file = getenv("SHIM_EDIT_FILE");
    renamed = 1;
    if (file == NULL || strstr(from, ".velquin-") == NULL) return;
    const int fd = open(file, O_WRONLY | O_APPEND);
    if (fd >= 0) {
        (void)!write(fd, "edited by another program", 25);
        close(fd);
    }
    unsetenv("SHIM_EDIT_FILE");
}

int rename(const char* from, const char* to) {
    static int (*real)(const char*, const char*);
    if (real == NULL) findNext(&real, "rename");
    editBefore(from);
    return real(from, to);
}

int renameat2(int fromDir, const char* from, int toDir, const char* to, unsigned flags) {
    static int (*real)(int, const char*, int, const char*, unsigned);
    if (real == NULL) findNext(&real, "renameat2");
    editBefore(from);
    return real(fromDir, from, toDir, to, flags);
}

int fsync(int fd) {
    static int (*real)(int);
    if (real == NULL) findNext(&real, "fsync");
    if (getenv("SHIM_FSYNC_EIO") != NULL && isCopy(fd)) {
        errno = EIO;
        return -1;
    }
    return real(fd);
}

static ssize_t killingWrite(int fd, const void* data, size_t size, off_t offset) {
    static ssize_t (*real)(int, const void*, size_t, off_t);
    if (real == NULL) findNext(&real, "pwrite");
    if (renamed && size > 1 && getenv("SHIM_KILL_MIDWRITE") != NULL && !isCopy(fd)) {
        real(fd, data, size / 2, offset);
        raise(SIGKILL);
    }
    return real(fd, data, size, offset);
}

ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
    return killingWrite(fd, data, size, offset);
}

ssize_t pwrite64(int fd, const void* data, size_t size, off_t offset) {
    return killingWrite(fd, data, size, offset);
}
