#include "apps/data/data_folder_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "apps/common/escaped.h"
#include "apps/common/process.h"
#include "apps/data/data_files.h"

namespace apps {

namespace {

// O_NONBLOCK: a pipe planted under the name must not hold us up before it is refused.
constexpr int kOpenFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

// SQLite's lock bytes: a page from 1 GiB on, whatever the size of the file. In WAL mode each connection holds one of
// them from its first statement to its end.
constexpr off_t kDatabaseLocks = 0x40000000;
constexpr off_t kDatabaseLocksLength = 512;

struct flock writeLock(off_t start, off_t length) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    return lock;
}

std::string lockPath(const std::string& folder) {
    return folder + "/" + kLockFile;
}

bool isRegular(int descriptor) {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

Finding inUse(const std::string& path, const std::string& kind, pid_t process) {
    const std::string by = process > 0 ? "process " + std::to_string(process) : "another process";
    return {path, kind + path + " is in use by " + by + ", which has to end first",
            process > 0 ? howToEnd(process) : "find it with: fuser -v " + shellWord(path)};
}

Finding folderInUse(const std::string& folder, pid_t process) {
    return inUse(folder, "the data folder ", process);
}

Finding unlockable(const std::string& path, const std::string& what) {
    return {path, what, "see that the folder can be written"};
}

// Whether the path still leads to the file.
bool standsAt(const std::string& path, int descriptor) {
    struct stat there {};
    struct stat opened {};
    return ::stat(path.c_str(), &there) == 0 && ::fstat(descriptor, &opened) == 0 && there.st_dev == opened.st_dev &&
           there.st_ino == opened.st_ino;
}

pid_t readProcess(int descriptor) {
    char text[32];
    const ssize_t length = ::pread(descriptor, text, sizeof text, 0);
    pid_t process = 0;
    if (length > 0) std::from_chars(text, text + length, process);
    return process;
}

bool writeProcess(int descriptor) {
    const std::string text = std::to_string(::getpid()) + "\n";
    return ::ftruncate(descriptor, 0) == 0 &&
           ::pwrite(descriptor, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

std::optional<Finding> lockedBy(const std::string& folder) {
    const Descriptor file(::open(lockPath(folder).c_str(), O_RDONLY | kOpenFlags));
    if (file.get() < 0 || !isRegular(file.get())) return std::nullopt;
    struct flock lock = writeLock(0, 0);
    if (::fcntl(file.get(), F_OFD_GETLK, &lock) < 0 || lock.l_type == F_UNLCK) return std::nullopt;
    return folderInUse(folder, readProcess(file.get()));
}

std::optional<Finding> databaseUsedBy(const std::string& database) {
    const Descriptor file(::open(database.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (file.get() < 0) return std::nullopt;
    struct flock lock = writeLock(kDatabaseLocks, kDatabaseLocksLength);
    if (::fcntl(file.get(), F_GETLK, &lock) < 0 || lock.l_type == F_UNLCK) return std::nullopt;
    return inUse(database, "the database ", lock.l_pid);
}

}  // namespace

std::optional<Finding> DataFolderLock::take(const std::string& folder) {
    const std::string path = lockPath(folder);
    for (;;) {
        Descriptor held(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (held.get() < 0) return unlockable(folder, "can't open " + folder + ": " + std::strerror(errno));
        if (::flock(held.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
            const std::optional<Finding> user = usedBy(folder);
            return user ? user : folderInUse(folder, 0);
        }
        Descriptor file(::open(path.c_str(), O_RDWR | O_CREAT | kOpenFlags, 0600));
        if (file.get() < 0) return unlockable(path, "can't open " + path + ": " + std::strerror(errno));
        if (!isRegular(file.get())) return Finding{path, path + " is not a regular file", "rm -r " + shellWord(path)};
        struct flock lock = writeLock(0, 0);
        if (::fcntl(file.get(), F_OFD_SETLK, &lock) < 0) {
            if (errno == EAGAIN || errno == EACCES) return folderInUse(folder, readProcess(file.get()));
            return unlockable(path, "can't lock " + path + ": " + std::strerror(errno));
        }
        // Something else was put in the place of one meanwhile.
        if (!standsAt(folder, held.get()) || !standsAt(path, file.get())) continue;
        (void)writeProcess(file.get());  // on a full disk only the number is missing
        mFolder = std::move(held);
        mFile = std::move(file);
        return std::nullopt;
    }
}

std::optional<Finding> usedBy(const std::string& folder) {
    const std::optional<Finding> user = lockedBy(folder);
    return user ? user : databaseUsedBy(folder + "/sdconfig.db");
}

}  // namespace apps
