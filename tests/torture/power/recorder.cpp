// A library to preload: notes what the process does to files below $POWER_ROOT, in $POWER_LOG. Each call and its record
// are one step for all processes that are recorded, so that the records tell the order on the disk.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <string_view>

#include "tests/torture/interposed.h"
#include "tests/torture/power/record.h"

namespace {

using power::Kind;
using torture::next;

// Stays, as what a process does to its files while it exits is to be noted, too.
const std::string& root() {
    static const std::string* const sRoot = new std::string(::getenv("POWER_ROOT") ? ::getenv("POWER_ROOT") : "");
    return *sRoot;
}

bool isWatched(const std::string& path) {
    return !root().empty() && path.size() > root().size() && path.compare(0, root().size(), root()) == 0 &&
           path[root().size()] == '/';
}

std::string pathOf(int fd) {
    char path[PATH_MAX];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
    return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : "";
}

// The folder's real path, so that names through links and descriptors are the same.
std::string pathOf(int folder, const char* name) {
    std::string text = name;
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    const std::size_t slash = text.rfind('/');
    const std::string parent = slash == std::string::npos ? "." : slash == 0 ? "/" : text.substr(0, slash);
    static auto* const sOpenAt = next<int(int, const char*, int, ...)>("openat");
    const int fd = sOpenAt(folder, parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return "";
    std::string path = pathOf(fd) + "/" + text.substr(slash == std::string::npos ? 0 : slash + 1);
    ::close(fd);
    return path;
}

struct stat statusOf(int fd) {
    struct stat status {};
    (void)::fstat(fd, &status);
    return status;
}

struct stat statusOf(const std::string& path) {
    struct stat status {};
    (void)::lstat(path.c_str(), &status);
    return status;
}

// Held from before a call until its record is written.
class Step {
public:
    Step() : mThreads(threads()) {
        if (log() >= 0) ::flock(log(), LOCK_EX);
    }
    ~Step() {
        if (log() >= 0) ::flock(log(), LOCK_UN);
    }
    Step(const Step&) = delete;
    Step& operator=(const Step&) = delete;

    void note(Kind kind, std::uint64_t file, std::int64_t number, const std::string& path, std::string_view data = {}) {
        const int error = errno;
        power::Record record{kind, static_cast<std::uint32_t>(path.size()), file, number, data.size()};
        iovec parts[] = {{&record, sizeof record},
                         {const_cast<char*>(path.data()), path.size()},
                         {const_cast<char*>(data.data()), data.size()}};
        static auto* const sWritev = next<ssize_t(int, const iovec*, int)>("writev");
        const auto whole = static_cast<ssize_t>(sizeof record + path.size() + data.size());
        if (log() >= 0 && sWritev(log(), parts, 3) != whole) ::abort();
        errno = error;
    }

private:
    static std::mutex& threads() {
        static std::mutex sMutex;
        return sMutex;
    }
    // Of this process: the lock of a descriptor that a child inherits would be its parent's.
    static int log() {
        static pid_t sProcess = 0;
        static int sLog = -1;
        if (sProcess == ::getpid()) return sLog;
        sProcess = ::getpid();
        static auto* const sOpen = next<int(const char*, int, ...)>("open");
        const char* const path = ::getenv("POWER_LOG");
        sLog = path ? sOpen(path, O_WRONLY | O_APPEND | O_CLOEXEC) : -1;
        return sLog;
    }

    const std::lock_guard<std::mutex> mThreads;
};

template <class Call>
int opened(int flags, Call&& call) {
    if ((flags & O_ACCMODE) == O_RDONLY && !(flags & (O_CREAT | O_TRUNC))) return call();
    Step step;
    const int fd = call();
    if (fd < 0) return fd;
    if (const std::string path = pathOf(fd); isWatched(path) && S_ISREG(statusOf(fd).st_mode))
        step.note(Kind::Open, statusOf(fd).st_ino, (flags & O_TRUNC) != 0, path);
    return fd;
}

ssize_t written(int fd, const std::string& path, ssize_t result, off_t at, std::string_view data, Step& step) {
    if (result > 0)
        step.note(Kind::Write, statusOf(fd).st_ino, at, path, data.substr(0, static_cast<std::size_t>(result)));
    return result;
}

void noteFolder(Step& step, int folder, const char* name) {
    const int error = errno;
    if (const std::string path = pathOf(folder, name); isWatched(path))
        step.note(Kind::MakeFolder, statusOf(path).st_ino, 0, path);
    errno = error;
}

int synced(int fd, const char* call) {
    Step step;
    const int result = next<int(int)>(call)(fd);
    if (const std::string path = pathOf(fd); result == 0 && (isWatched(path) || path == root()))
        step.note(S_ISDIR(statusOf(fd).st_mode) ? Kind::SyncFolder : Kind::Sync, statusOf(fd).st_ino, 0, path);
    return result;
}

}  // namespace

#define RECORDED extern "C" __attribute__((visibility("default")))

// The names are the C library's own.
// NOLINTBEGIN(readability-identifier-naming, cert-dcl50-cpp)
RECORDED int open(const char* path, int flags, ...) {
    TAKE_MODE(mode, flags);
    return opened(flags, [&] { return next<int(const char*, int, ...)>("open")(path, flags, mode); });
}

RECORDED int openat(int folder, const char* path, int flags, ...) {
    TAKE_MODE(mode, flags);
    return opened(flags, [&] { return next<int(int, const char*, int, ...)>("openat")(folder, path, flags, mode); });
}

RECORDED int open64(const char* path, int flags, ...) __attribute__((alias("open")));
RECORDED int openat64(int folder, const char* path, int flags, ...) __attribute__((alias("openat")));

RECORDED ssize_t write(int fd, const void* data, size_t length) {
    static auto* const sWrite = next<ssize_t(int, const void*, size_t)>("write");
    const std::string path = pathOf(fd);
    if (!isWatched(path)) return sWrite(fd, data, length);
    Step step;
    const ssize_t result = sWrite(fd, data, length);
    // Where it went: before the offset that it left.
    const off_t after = ::lseek(fd, 0, SEEK_CUR);
    return written(fd, path, result, after - result, {static_cast<const char*>(data), length}, step);
}

RECORDED ssize_t writev(int fd, const iovec* parts, int count) {
    static auto* const sWritev = next<ssize_t(int, const iovec*, int)>("writev");
    const std::string path = pathOf(fd);
    if (!isWatched(path)) return sWritev(fd, parts, count);
    std::string data;
    for (int i = 0; i < count; ++i) data.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
    return write(fd, data.data(), data.size());
}

RECORDED ssize_t pwrite(int fd, const void* data, size_t length, off_t at) {
    static auto* const sPwrite = next<ssize_t(int, const void*, size_t, off_t)>("pwrite");
    const std::string path = pathOf(fd);
    if (!isWatched(path)) return sPwrite(fd, data, length, at);
    Step step;
    return written(fd, path, sPwrite(fd, data, length, at), at, {static_cast<const char*>(data), length}, step);
}

RECORDED ssize_t pwrite64(int fd, const void* data, size_t length, off_t at) __attribute__((alias("pwrite")));

RECORDED int ftruncate(int fd, off_t size) {
    static auto* const sTruncate = next<int(int, off_t)>("ftruncate");
    const std::string path = pathOf(fd);
    if (!isWatched(path)) return sTruncate(fd, size);
    Step step;
    const int result = sTruncate(fd, size);
    if (result == 0) step.note(Kind::Truncate, statusOf(fd).st_ino, size, path);
    return result;
}

RECORDED int ftruncate64(int fd, off_t size) __attribute__((alias("ftruncate")));

RECORDED int fsync(int fd) {
    return synced(fd, "fsync");
}

RECORDED int fdatasync(int fd) {
    return synced(fd, "fdatasync");
}

RECORDED int renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned flags) {
    static auto* const sRename = next<int(int, const char*, int, const char*, unsigned)>("renameat2");
    const std::string source = pathOf(fromFolder, from);
    const std::string target = pathOf(toFolder, to);
    Step step;
    const std::uint64_t file = statusOf(source).st_ino;
    const int result = sRename(fromFolder, from, toFolder, to, flags);
    if (result == 0 && (isWatched(source) || isWatched(target)))
        step.note(Kind::Rename, file, (flags & RENAME_EXCHANGE) != 0, source, target);
    return result;
}

RECORDED int renameat(int fromFolder, const char* from, int toFolder, const char* to) {
    return renameat2(fromFolder, from, toFolder, to, 0);
}

RECORDED int rename(const char* from, const char* to) {
    return renameat2(AT_FDCWD, from, AT_FDCWD, to, 0);
}

RECORDED int linkat(int fromFolder, const char* from, int toFolder, const char* to, int flags) {
    static auto* const sLink = next<int(int, const char*, int, const char*, int)>("linkat");
    const std::string target = pathOf(toFolder, to);
    Step step;
    const int result = sLink(fromFolder, from, toFolder, to, flags);
    if (result == 0 && isWatched(target)) step.note(Kind::Link, statusOf(target).st_ino, 0, target);
    return result;
}

RECORDED int link(const char* from, const char* to) {
    return linkat(AT_FDCWD, from, AT_FDCWD, to, 0);
}

RECORDED int unlinkat(int folder, const char* name, int flags) {
    static auto* const sUnlink = next<int(int, const char*, int)>("unlinkat");
    const std::string path = pathOf(folder, name);
    Step step;
    const std::uint64_t file = statusOf(path).st_ino;
    const int result = sUnlink(folder, name, flags);
    if (result == 0 && isWatched(path)) step.note(Kind::Remove, file, 0, path);
    return result;
}

RECORDED int unlink(const char* path) {
    return unlinkat(AT_FDCWD, path, 0);
}

RECORDED int rmdir(const char* path) {
    return unlinkat(AT_FDCWD, path, AT_REMOVEDIR);
}

RECORDED int remove(const char* path) {
    return unlinkat(AT_FDCWD, path, S_ISDIR(statusOf(path).st_mode) ? AT_REMOVEDIR : 0);
}

RECORDED int mkdirat(int folder, const char* path, mode_t mode) {
    static auto* const sMake = next<int(int, const char*, mode_t)>("mkdirat");
    Step step;
    const int result = sMake(folder, path, mode);
    if (result == 0) noteFolder(step, folder, path);
    return result;
}

RECORDED int mkdir(const char* path, mode_t mode) {
    return mkdirat(AT_FDCWD, path, mode);
}

// The C library's own makes what it makes without those above.
RECORDED char* mkdtemp(char* path) {
    static auto* const sMake = next<char*(char*)>("mkdtemp");
    Step step;
    char* const result = sMake(path);
    if (result) noteFolder(step, AT_FDCWD, path);
    return result;
}

RECORDED int mkostemp(char* path, int flags) {
    static auto* const sMake = next<int(char*, int)>("mkostemp");
    return opened(O_RDWR | O_CREAT, [&] { return sMake(path, flags); });
}

RECORDED int mkostemp64(char* path, int flags) __attribute__((alias("mkostemp")));
// NOLINTEND(readability-identifier-naming, cert-dcl50-cpp)
