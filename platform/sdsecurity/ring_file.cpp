#include "platform/sdsecurity/ring_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <thread>

#include "base/synced_folder.h"
#include "platform/sdsecurity/ring_text.h"

namespace sd::security {
namespace {

using KeyRingState = SDSecurity::KeyRingState;

// One lock for everything in the folder that is written. It has a file of its own, since the others are replaced.
constexpr char kLockName[] = "sdsecurity.lock";
constexpr std::chrono::milliseconds kLockRetry{5};
constexpr std::size_t kUsualText = 4096;  // that a file is no longer than

FileRead broken(const std::string& reason) {
    return {KeyRingState::Broken, {}, reason};
}

std::string sibling(const std::string& name) {
    return name + ".new";
}

// Why the file can't be trusted, or "".
std::string distrust(int descriptor, Readers readers) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) return systemError("fstat");
    if (!S_ISREG(status.st_mode)) return "it is no regular file";
    if (status.st_uid != ::geteuid() && status.st_uid != 0)
        return "it belongs to user " + std::to_string(status.st_uid);
    const mode_t refused = readers == Readers::GroupToo ? 0037 : 0077;
    return status.st_mode & refused ? "others may read or write it" : "";
}

bool writeAll(int descriptor, const SecretBytes& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t count = ::write(descriptor, bytes.data() + done, bytes.size() - done);
        if (count < 0 && errno != EINTR) return false;
        if (count > 0) done += static_cast<std::size_t>(count);
    }
    return true;
}

bool lockWithin(int descriptor, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        const bool held = errno == EWOULDBLOCK || errno == EINTR;
        if (!held || std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(kLockRetry);
    }
    return true;
}

}  // namespace

FileRead readDescriptor(int descriptor) {
    // One more than allowed tells a file of the bound from a longer one.
    constexpr std::size_t kMost = kMaxWrappedText + 1;
    SecretBytes bytes(kUsualText);
    std::size_t size = 0;
    for (bool seekable = true; size < kMost;) {
        if (size == bytes.size()) bytes.resize(std::min(2 * size, kMost));
        unsigned char* const at = bytes.data() + size;
        const ssize_t count = seekable ? ::pread(descriptor, at, bytes.size() - size, static_cast<off_t>(size))
                                       : ::read(descriptor, at, bytes.size() - size);
        if (count == 0) break;
        if (count > 0) {
            size += static_cast<std::size_t>(count);
        } else if (errno == ESPIPE && seekable) {
            seekable = false;
        } else if (errno != EINTR) {
            return broken(systemError("read"));
        }
    }
    bytes.resize(size);
    return {KeyRingState::Usable, std::move(bytes), ""};
}

FileRead readFile(const std::string& path, Readers readers) {
    // Not to wait for the writer of a FIFO that somebody put there.
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file && errno == ENOENT) return {KeyRingState::Absent, {}, ""};
    if (!file) return broken(errno == ELOOP ? "it is a symbolic link" : systemError("open"));
    const std::string reason = distrust(file.get(), readers);
    return reason.empty() ? readDescriptor(file.get()) : broken(reason);
}

RingRead parseRing(const FileRead& file) {
    RingRead read{file.state, {}, file.reason};
    if (file.state != KeyRingState::Usable) return read;
    if (std::optional<KeyRing> ring = parseKeyRing(viewOf(file.bytes), read.reason))
        read.ring = std::move(*ring);
    else
        read.state = KeyRingState::Broken;
    return read;
}

std::optional<LockedFolder> LockedFolder::lock(const std::string& path, std::chrono::milliseconds wait,
                                               std::string& reason) {
    const auto fail = [&reason](const std::string& why) {
        reason = why;
        return std::nullopt;
    };
    UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) return fail(systemError("open folder"));
    struct stat status {};
    if (::fstat(folder.get(), &status) != 0) return fail(systemError("fstat"));
    if (status.st_uid != ::geteuid()) return fail("the folder belongs to user " + std::to_string(status.st_uid));
    UniqueFd file(::openat(folder.get(), kLockName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600));
    if (!file) return fail(systemError(std::string("open ") + kLockName));
    if (::fchmod(file.get(), 0600) != 0) return fail(systemError("fchmod"));
    if (!lockWithin(file.get(), wait))
        return fail(errno == EWOULDBLOCK ? std::string("another process holds ") + kLockName
                                         : systemError(std::string("lock ") + kLockName));
    return LockedFolder(path, std::move(folder), std::move(file));
}

LockedFolder::~LockedFolder() {
    // Closing alone would leave the lock with a child that was forked meanwhile.
    if (mLock) ::flock(mLock.get(), LOCK_UN);
}

bool LockedFolder::writeAside(const std::string& name, const SecretBytes& bytes, std::string& reason) const {
    const std::string aside = sibling(name);
    removeLeftover(name);  // of a process that died; no other is at it, as it would hold the lock
    const UniqueFd file(
        ::openat(mFolder.get(), aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file && ::fchmod(file.get(), 0600) == 0 && writeAll(file.get(), bytes) && ::fsync(file.get()) == 0) return true;
    reason = systemError("write " + aside);
    if (file) (void)::unlinkat(mFolder.get(), aside.c_str(), 0);
    return false;
}

bool LockedFolder::create(const std::string& name, const SecretBytes& bytes, std::string& reason) const {
    if (!writeAside(name, bytes, reason)) return false;
    // A link, not a rename: it never takes the place of a file that is there.
    bool done = ::linkat(mFolder.get(), sibling(name).c_str(), mFolder.get(), name.c_str(), 0) == 0;
    if (!done) reason = systemError("link " + name);
    (void)::unlinkat(mFolder.get(), sibling(name).c_str(), 0);
    if (done && !syncFolder(mFolder.get())) {
        reason = systemError("fsync folder");
        (void)::unlinkat(mFolder.get(), name.c_str(), 0);
        done = false;
    }
    return done;
}

bool LockedFolder::replace(const std::string& name, const SecretBytes& bytes, std::string& reason) const {
    return replaceTried(name, bytes, nullptr, reason);
}

bool LockedFolder::replaceTried(const std::string& name, const SecretBytes& bytes, const Trial& trial,
                                std::string& reason) const {
    if (!writeAside(name, bytes, reason)) return false;
    const std::string aside = sibling(name);
    const auto fail = [&](const std::string& why) {
        reason = why;
        (void)::unlinkat(mFolder.get(), aside.c_str(), 0);
        return false;
    };
    if (trial)
        if (const std::string why = trial(readFile(mPath + '/' + aside, Readers::OwnerOnly)); !why.empty())
            return fail(why);
    if (::renameat(mFolder.get(), aside.c_str(), mFolder.get(), name.c_str()) != 0)
        return fail(systemError("rename " + name));
    if (syncFolder(mFolder.get())) return true;
    // The new file stands, but may be gone after a power cut: nothing may be sealed by what it adds.
    reason = systemError("fsync folder");
    return false;
}

void LockedFolder::removeLeftover(const std::string& name) const {
    const PlainFile left(mPath + '/' + sibling(name));
    if (::unlinkat(mFolder.get(), sibling(name).c_str(), 0) == 0) (void)left.overwrite();
}

PlainFile::PlainFile(const std::string& path)
    : mFile(::open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {}

std::string PlainFile::overwrite() const {
    struct stat status {};
    if (!mFile || ::fstat(mFile.get(), &status) != 0) return "it could not be opened";
    if (status.st_nlink > 0) return "it has another name, under which it stands as before";
    const std::array<unsigned char, 4096> nothing{};
    for (off_t done = 0; done < status.st_size;) {
        const auto left = static_cast<std::size_t>(status.st_size - done);
        const ssize_t count = ::pwrite(mFile.get(), nothing.data(), std::min(left, nothing.size()), done);
        if (count < 0 && errno != EINTR) return systemError("write");
        if (count > 0) done += count;
    }
    return ::fsync(mFile.get()) == 0 ? "" : systemError("fsync");
}

bool makeFolder(const std::string& path, bool parents, std::string& reason) {
    const std::string parent = folderAbove(path);
    int made = ::mkdir(path.c_str(), 0700);
    if (made != 0 && errno == ENOENT && parents && parent != ".") {
        if (!makeFolder(parent, true, reason)) return false;
        made = ::mkdir(path.c_str(), 0700);
    }
    if (made != 0 && errno == EEXIST) {
        syncNameOfEmpty(path);
        return true;
    }
    // The mode is not left to the umask, and the folder is to be found after a power cut.
    if (made == 0 && ::chmod(path.c_str(), 0700) == 0 && syncFolder(parent)) return true;
    reason = systemError("mkdir " + path);
    return false;
}

}  // namespace sd::security
