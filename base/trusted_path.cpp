#include "base/trusted_path.h"

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <deque>
#include <sstream>
#include <vector>

namespace sd {

namespace {

constexpr int kLinksMax = 40;  // as the kernel's
constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;
// O_NONBLOCK: a pipe must not hold us up.
constexpr int kReadFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

bool isNullDevice(const struct stat& status) {
    return S_ISCHR(status.st_mode) && status.st_rdev == ::makedev(1, 3);
}

std::string whoElseWrites(mode_t mode) {
    return (mode & S_IWOTH) != 0 ? "everybody" : "its group";
}

// The walk from the root folder, with the folders on the way held open, so that nobody moves them from under it.
class Walk {
public:
    explicit Walk(uid_t owner) : mOwner(owner) {}

    TrustedOpening to(const std::string& path) {
        if (pushRoot()) prepend(path);
        while (isGoingOn() && !mAhead.empty()) {
            const std::string name = std::move(mAhead.front());
            mAhead.pop_front();
            step(name);
        }
        if (isGoingOn() && !mResult.file && !mResult.isNull) open(".", 0);
        return std::move(mResult);
    }

    // The end of a path whose folder was walked to.
    TrustedOpening endIn(int folder, const std::string& path, const std::string& name) {
        mShown = path;
        finish(folder, name);
        return std::move(mResult);
    }

private:
    bool isGoingOn() const { return mResult.failure == 0 && mResult.distrust.empty(); }
    bool fail() {
        mResult.failure = errno;
        return false;
    }
    void distrust(const std::string& name, const std::string& why) {
        mResult.distrust = (mShown == "/" ? "" : mShown) + (name == "." ? "" : "/" + name) + " " + why;
    }

    bool isTheirs(const struct stat& status, const std::string& name) {
        if (status.st_uid == 0 || status.st_uid == mOwner) return true;
        distrust(name, "belongs to the user " + std::to_string(status.st_uid));
        return false;
    }

    // Takes a folder on the way.
    bool enter(UniqueFd folder, const struct stat& status, const std::string& name) {
        if (!isTheirs(status, name)) return false;
        if ((status.st_mode & kOthersWrite) != 0 && (status.st_mode & S_ISVTX) == 0) {
            distrust(name, "is writable by " + whoElseWrites(status.st_mode));
            return false;
        }
        mWay.push_back({std::move(folder), mShown});
        if (name != ".") mShown = (mShown == "/" ? "" : mShown) + "/" + name;
        return true;
    }

    bool pushRoot() {
        mWay.clear();
        mShown = "/";
        UniqueFd root(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
        struct stat status {};
        if (!root || ::fstat(root.get(), &status) != 0) return fail();
        return enter(std::move(root), status, ".");
    }

    void prepend(const std::string& path) {
        std::istringstream names(path);
        std::deque<std::string> read;
        for (std::string name; std::getline(names, name, '/');)
            if (!name.empty() && name != ".") read.push_back(name);
        mAhead.insert(mAhead.begin(), read.begin(), read.end());
    }

    void step(const std::string& name) {
        if (name == "..") {
            if (mWay.size() > 1) {
                mShown = mWay.back().shownBefore;
                mWay.pop_back();
            }
            return;
        }
        UniqueFd next(::openat(mWay.back().folder.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat status {};
        if (!next || ::fstat(next.get(), &status) != 0) return void(fail());
        if (S_ISLNK(status.st_mode)) return follow(next, status, name);
        if (S_ISDIR(status.st_mode)) return void(enter(std::move(next), status, name));
        if (!mAhead.empty()) {
            mResult.failure = ENOTDIR;
            return;
        }
        finish(mWay.back().folder.get(), name);
    }

    void follow(const UniqueFd& link, const struct stat& status, const std::string& name) {
        mResult.hasLink = true;
        if (!isTheirs(status, name)) return;
        std::array<char, PATH_MAX> target{};
        const ssize_t size = ::readlinkat(link.get(), "", target.data(), target.size());
        if (size < 0) return void(fail());
        if (++mLinks > kLinksMax) {
            mResult.failure = ELOOP;
            return;
        }
        if (target[0] == '/' && !pushRoot()) return;
        prepend({target.data(), static_cast<std::size_t>(size)});
    }

    // Opens the file at the end. What it is counts of the open one alone: the name may lead elsewhere by now.
    void finish(int folder, const std::string& name) {
        struct stat status {};
        if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return void(fail());
        if (isNullDevice(status)) {
            mResult.isNull = true;
        } else if (S_ISREG(status.st_mode) || S_ISLNK(status.st_mode)) {
            open(name, S_IFREG, folder);
        } else {
            distrust(name, "is no regular file");
        }
    }

    // kind: the file's; 0 for the folder that was walked to.
    void open(const std::string& name, mode_t kind, int folder = -1) {
        UniqueFd file(::openat(folder >= 0 ? folder : mWay.back().folder.get(), name.c_str(), kReadFlags));
        struct stat& status = mResult.status;
        if (!file || ::fstat(file.get(), &status) != 0) return void(fail());
        if (kind != 0 && (status.st_mode & S_IFMT) != kind) return distrust(name, "is no regular file");
        if (!isTheirs(status, name)) return;
        if ((status.st_mode & kOthersWrite) != 0)
            return distrust(name, "is writable by " + whoElseWrites(status.st_mode));
        mResult.file = std::move(file);
    }

    struct Passed {
        UniqueFd folder;
        std::string shownBefore;
    };

    const uid_t mOwner;
    std::vector<Passed> mWay;  // from the root folder
    std::string mShown;        // where it is, for a person
    std::deque<std::string> mAhead;
    int mLinks = 0;
    TrustedOpening mResult;
};

}  // namespace

TrustedOpening openTrusted(const std::string& path, uid_t owner) {
    return Walk(owner).to(path);
}

TrustedOpening openTrustedIn(const UniqueFd& folder, const std::string& path, const std::string& name, uid_t owner) {
    TrustedOpening opening = Walk(owner).endIn(folder.get(), path, name);
    return opening.failure == ELOOP ? Walk(owner).to(path + "/" + name) : std::move(opening);
}

}  // namespace sd
