#include "policies/folder_watch.h"

#include <linux/magic.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <utility>

#include "policies/policy_folders.h"

namespace sd {

namespace {

using std::chrono::milliseconds;

// A burst of changes is over when nothing came for so long; but a stream of them holds nothing up for longer.
constexpr milliseconds kQuiet{10};
constexpr milliseconds kBurstMost{40};
constexpr milliseconds kWritingMost{1000};

constexpr std::uint32_t kAlways = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF |
                                  IN_MOVE_SELF | IN_ONLYDIR | IN_MASK_ADD;
constexpr std::uint32_t kOfFiles = IN_CLOSE_WRITE | IN_MODIFY;

// Where others change files too, of which this kernel learns nothing.
bool isTold(const std::string& path) {
    constexpr long kCifs = 0xff534d42;
    constexpr long kSmb2 = 0xfe534d42;
    constexpr long kFuse = 0x65735546;
    struct statfs status {};
    if (::statfs(path.c_str(), &status) != 0) return true;
    const auto kind = static_cast<long>(status.f_type) & 0xffffffffL;
    return kind != NFS_SUPER_MAGIC && kind != SMB_SUPER_MAGIC && kind != kCifs && kind != kSmb2 && kind != kFuse &&
           kind != V9FS_MAGIC;
}

bool isRegular(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

FolderWatch::FolderWatch(std::vector<std::string> folders)
    : mFolders(std::move(folders)),
      mNotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      mWake(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

bool FolderWatch::watch(const std::string& path, Watched what, std::map<int, Watched>& armed) const {
    const std::uint32_t mask = what.folders.empty() ? kAlways : kAlways | kOfFiles;
    const int id = ::inotify_add_watch(mNotify.get(), path.c_str(), mask);
    if (id < 0) return errno == ENOENT || errno == ENOTDIR;  // the one above it tells when it comes
    Watched& watched = armed[id];
    watched.names.merge(what.names);
    watched.folders.insert(watched.folders.end(), what.folders.begin(), what.folders.end());
    return isTold(path);
}

bool FolderWatch::arm() {
    mHasNews = false;
    if (!mNotify) mNotify.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));  // descriptors may have been short
    if (!mNotify) return false;
    bool isSure = true;
    std::map<int, Watched> armed;
    for (const std::string& folder : mFolders) {
        for (std::size_t slash = 0; slash != std::string::npos;) {
            const std::size_t next = folder.find('/', slash + 1);
            const std::string above = slash == 0 ? "/" : folder.substr(0, slash);
            isSure &= watch(above, {{folder.substr(slash + 1, next - slash - 1)}, {}}, armed);
            slash = next;
        }
        isSure &= watch(folder, {{}, {folder}}, armed);
    }
    for (const auto& [id, watched] : mWatched)
        if (armed.count(id) == 0) ::inotify_rm_watch(mNotify.get(), id);
    mWatched = std::move(armed);
    return isSure;
}

// Whether it tells of a change to look into.
bool FolderWatch::takeEvent(int id, std::uint32_t kinds, const std::string& name) {
    if ((kinds & IN_Q_OVERFLOW) != 0) {
        mUnfinished.clear();
        return true;
    }
    const auto found = mWatched.find(id);
    if (found == mWatched.end() || (kinds & IN_IGNORED) != 0) return false;
    const Watched& watched = found->second;
    if (name.empty() || watched.names.count(name) != 0) return true;
    // A file that is written aside, to be renamed when it is whole, is none yet.
    if (watched.folders.empty() || !isPolicyFileName(name)) return false;
    bool isNews = false;
    for (const std::string& folder : watched.folders) {
        const std::string path = std::string(folder).append("/").append(name);
        // One that was created is closed later, but for those that are links.
        if ((kinds & IN_MODIFY) != 0 || ((kinds & IN_CREATE) != 0 && isRegular(path))) {
            mUnfinished[path] = Clock::now() + kWritingMost;
        } else {
            if ((kinds & IN_ATTRIB) == 0) mUnfinished.erase(path);
            isNews = true;
        }
    }
    return isNews;
}

bool FolderWatch::takeEvents() {
    bool isNews = false;
    std::array<char, 16384> buffer{};
    while (true) {
        const ssize_t size = ::read(mNotify.get(), buffer.data(), buffer.size());
        if (size <= 0) return isNews;
        for (const char* at = buffer.data(); at < buffer.data() + size;) {
            inotify_event event{};
            std::memcpy(&event, at, sizeof event);
            at += sizeof event;
            const std::string name = event.len > 0 ? at : "";  // zero bytes fill it up
            isNews |= takeEvent(event.wd, event.mask, name);
            at += event.len;
        }
    }
}

// Whether there is something to look into.
bool FolderWatch::waitOnce(milliseconds limit) {
    if (std::exchange(mHasNews, false)) return true;
    std::array<pollfd, 2> ends{pollfd{mWake.get(), POLLIN, 0}, pollfd{mNotify.get(), POLLIN, 0}};
    if (::poll(ends.data(), ends.size(), static_cast<int>(limit.count())) <= 0) return false;
    std::uint64_t count = 0;
    const bool isWoken = ::read(mWake.get(), &count, sizeof count) > 0;
    const bool isNews = takeEvents();
    return isWoken || isNews;
}

void FolderWatch::wait(milliseconds limit) {
    const auto end = Clock::now() + limit;
    const auto left = [](Clock::time_point until) {
        return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(until - Clock::now()));
    };
    while (true) {
        // Who never closes a file is waited for no longer than this.
        const bool mayStay = limit.count() < 0;
        milliseconds most = mayStay ? milliseconds(-1) : left(end);
        for (const auto& one : mUnfinished)
            most = most.count() < 0 ? left(one.second) : std::min(most, left(one.second));
        if (waitOnce(most)) break;
        if (dropOverdue() || (!mayStay && Clock::now() >= end)) return;
    }
    const auto burstEnd = Clock::now() + kBurstMost;
    while (Clock::now() < burstEnd && waitOnce(kQuiet)) {
    }
}

void FolderWatch::wake() const {
    const std::uint64_t one = 1;
    (void)!::write(mWake.get(), &one, sizeof one);
}

// Whether there was one that counts from now on.
bool FolderWatch::dropOverdue() {
    bool isAny = false;
    for (auto file = mUnfinished.begin(); file != mUnfinished.end();) {
        const bool isOver = file->second <= Clock::now();
        isAny |= isOver;
        file = isOver ? mUnfinished.erase(file) : std::next(file);
    }
    return isAny;
}

bool FolderWatch::hasNews() {
    mHasNews |= takeEvents();
    return mHasNews;
}

bool FolderWatch::isUnfinished(const std::string& path) {
    (void)hasNews();
    const auto file = mUnfinished.find(path);
    return file != mUnfinished.end() && file->second > Clock::now();
}

}  // namespace sd
