#include "apps/common/data_folder_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "apps/common/data_files.h"

namespace apps {

namespace {

// O_NONBLOCK: a pipe planted under the name must not hold us up before it is refused.
constexpr int kOpenFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

// SQLite's lock bytes: a page from 1 GiB on, whatever the size of the file. In WAL mode each connection holds one of
// them from its first statement to its end.
constexpr off_t kDatabaseLocks = 0x40000000;
constexpr off_t kDatabaseLocksLength = 512;

class Descriptor {
public:
    explicit Descriptor(int value) : mValue(value) {}
    ~Descriptor() {
        if (mValue >= 0) ::close(mValue);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return mValue; }
    int release() { return std::exchange(mValue, -1); }

private:
    int mValue;
};

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

std::string inUse(const std::string& what, pid_t process) {
    const std::string by = process > 0 ? "process " + std::to_string(process) : "another process";
    return what + " is in use by " + by + ", which has to end first";
}

// Whether the path still leads to the file.
bool standsAt(const std::string& path, int descriptor) {
    struct stat there {};
    struct stat opened {};
    return ::lstat(path.c_str(), &there) == 0 && ::fstat(descriptor, &opened) == 0 && there.st_dev == opened.st_dev &&
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

std::string lockedBy(const std::string& folder) {
    const Descriptor file(::open(lockPath(folder).c_str(), O_RDONLY | kOpenFlags));
    if (file.get() < 0 || !isRegular(file.get())) return "";
    struct flock lock = writeLock(0, 0);
    if (::fcntl(file.get(), F_OFD_GETLK, &lock) < 0 || lock.l_type == F_UNLCK) return "";
    return inUse("the data folder " + folder, readProcess(file.get()));
}

std::string databaseUsedBy(const std::string& database) {
    const Descriptor file(::open(database.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (file.get() < 0) return "";
    struct flock lock = writeLock(kDatabaseLocks, kDatabaseLocksLength);
    if (::fcntl(file.get(), F_GETLK, &lock) < 0 || lock.l_type == F_UNLCK) return "";
    return inUse("the database " + database, lock.l_pid);
}

}  // namespace

DataFolderLock::~DataFolderLock() {
    if (mDescriptor >= 0) ::close(mDescriptor);
}

std::string DataFolderLock::take(const std::string& folder) {
    const std::string path = lockPath(folder);
    for (;;) {
        Descriptor file(::open(path.c_str(), O_RDWR | O_CREAT | kOpenFlags, 0600));
        if (file.get() < 0) return "can't open " + path + ": " + std::strerror(errno);
        if (!isRegular(file.get())) return path + " is not a regular file";
        struct flock lock = writeLock(0, 0);
        if (::fcntl(file.get(), F_OFD_SETLK, &lock) < 0) {
            if (errno == EAGAIN || errno == EACCES) return inUse("the data folder " + folder, readProcess(file.get()));
            return "can't lock " + path + ": " + std::strerror(errno);
        }
        if (!standsAt(path, file.get())) continue;  // another folder was put in this one's place meanwhile
        (void)writeProcess(file.get());             // on a full disk only the number is missing
        mDescriptor = file.release();
        return "";
    }
}

std::string usedBy(const std::string& folder) {
    const std::string folderUser = lockedBy(folder);
    return folderUser.empty() ? databaseUsedBy(folder + "/sdconfig.db") : folderUser;
}

}  // namespace apps
