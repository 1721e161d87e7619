// The lock file beside a service's socket.
#include "platform/sdbus/service_lock.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstring>

namespace sdbus {
namespace {

// A file that is replaced under our hands this often is not somebody's clean stop.
constexpr int kAttempts = 16;

// Locks of the open file, not of the process: a second user in this process is kept out too. And they can be asked for
// without being taken, so that asking who serves a name never makes a registration fail.
struct flock wholeFile() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

// O_NONBLOCK: a pipe planted under the name must not hold us up before it is refused.
constexpr int kOpenFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

bool isOurFile(const struct stat& status) {
    return S_ISREG(status.st_mode) && status.st_uid == ::geteuid();
}

pid_t readProcess(int fd) {
    char text[32];
    const ssize_t length = ::pread(fd, text, sizeof(text), 0);
    pid_t process = 0;
    if (length > 0) std::from_chars(text, text + length, process);
    return process > 0 ? process : 0;
}

bool writeProcess(int fd) {
    const std::string text = std::to_string(::getpid()) + "\n";
    return ::ftruncate(fd, 0) == 0 && ::pwrite(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
}

// Whether the name still leads to the file that we locked: its last owner removes it at a clean stop.
bool isStillNamed(int folder, const std::string& name, const struct stat& locked) {
    struct stat now {};
    if (::fstatat(folder, name.c_str(), &now, AT_SYMLINK_NOFOLLOW) < 0) return false;
    return now.st_dev == locked.st_dev && now.st_ino == locked.st_ino;
}

}  // namespace

ServiceLock::ServiceLock(UniqueFd fd, std::string name)
    : mFd(std::move(fd)), mName(std::move(name)), mInherited(std::make_unique<ClosedInChild>(mFd.get())) {}

std::optional<ServiceLock> ServiceLock::take(int folder, const std::string& service, std::string& why) {
    const std::string name = service + ".lock";
    const auto fail = [&](const std::string& what) {
        why = "cannot lock " + name + ": " + what;
        return std::nullopt;
    };
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        UniqueFd fd(::openat(folder, name.c_str(), O_RDWR | O_CREAT | kOpenFlags, 0600));
        struct stat status {};
        if (!fd || ::fstat(fd.get(), &status) < 0) return fail(std::strerror(errno));
        if (!isOurFile(status)) return fail("it is no regular file of ours");
        struct flock lock = wholeFile();
        if (::fcntl(fd.get(), F_OFD_SETLK, &lock) < 0) {
            if (errno != EAGAIN && errno != EACCES) return fail(std::strerror(errno));
            why = "service " + service + " is already served by process " + std::to_string(readProcess(fd.get()));
            return std::nullopt;
        }
        if (!isStillNamed(folder, name, status)) continue;
        if (::fchmod(fd.get(), 0600) < 0 || !writeProcess(fd.get())) return fail(std::strerror(errno));
        return ServiceLock(std::move(fd), name);
    }
    return fail("it is replaced all the time");
}

void ServiceLock::remove(int folder) {
    if (mFd) (void)::unlinkat(folder, mName.c_str(), 0);
    mInherited.reset();
    mFd.reset();
}

pid_t lockHolder(int folder, const std::string& service) {
    const UniqueFd fd(::openat(folder, (service + ".lock").c_str(), O_RDONLY | kOpenFlags));
    struct stat status {};
    if (!fd || ::fstat(fd.get(), &status) < 0 || !isOurFile(status)) return 0;
    struct flock lock = wholeFile();
    if (::fcntl(fd.get(), F_OFD_GETLK, &lock) < 0 || lock.l_type == F_UNLCK) return 0;
    return readProcess(fd.get());
}

}  // namespace sdbus
