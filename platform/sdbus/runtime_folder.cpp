// Where the sockets stand, and who may have made that folder.
#include "platform/sdbus/runtime_folder.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/sdbus/socket_address.h"

namespace sdbus {
namespace {

constexpr std::size_t kServiceNameMax = 64;

bool isNameCharacter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
}

std::string failed(const std::string& what, const std::string& path) {
    return what + " " + path + ": " + std::strerror(errno);
}

}  // namespace

bool isServiceName(const std::string& name) {
    if (name.empty() || name.size() > kServiceNameMax || name[0] == '.') return false;
    return std::all_of(name.begin(), name.end(), isNameCharacter);
}

bool isTrustedUser(uid_t user) {
    return user == 0 || user == ::geteuid();
}

bool identifyPeer(int fd, PeerIdentity& identity) {
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) < 0) return false;
    identity = {credentials.uid, credentials.pid};
    return true;
}

RuntimeFolder RuntimeFolder::fromEnvironment() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime && *runtime) return {runtime, "sdbus", Parent::Ours};
    return {"/tmp", "sdbus-" + std::to_string(::geteuid()), Parent::Everybodys};
}

RuntimeFolder RuntimeFolder::forClient(const std::string& userFolders) {
    RuntimeFolder first = fromEnvironment();
    if (first.mKind == Parent::Ours) return first;
    const std::string session = userFolders + "/" + std::to_string(::geteuid());
    first.mNext = std::make_shared<const RuntimeFolder>(RuntimeFolder(session, "sdbus", Parent::OursIfThere));
    return first;
}

RuntimeFolder::Result RuntimeFolder::openParent(UniqueFd& parent, std::string& why) const {
    if (mParent[0] != '/') {
        why = "XDG_RUNTIME_DIR is not an absolute path";
        return Result::Unfit;
    }
    parent.reset(::open(mParent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!parent) {
        why = failed("cannot open the runtime folder", mParent);
        return errno == ENOENT && mKind == Parent::OursIfThere ? Result::Absent : Result::Unfit;
    }
    struct stat status {};
    if (::fstat(parent.get(), &status) < 0) {
        why = failed("cannot examine the runtime folder", mParent);
        return Result::Unfit;
    }
    if (mKind == Parent::Everybodys) return Result::Open;
    if (status.st_uid != ::geteuid()) {
        why = "the runtime folder " + mParent + " belongs to user " + std::to_string(status.st_uid) + ", not to user " +
              std::to_string(::geteuid());
        return Result::Unfit;
    }
    if (status.st_mode & (S_IWGRP | S_IWOTH)) {
        why = "others may write to the runtime folder " + mParent;
        return Result::Unfit;
    }
    return Result::Open;
}

bool RuntimeFolder::isFit(int folder, std::string& why) const {
    struct stat status {};
    if (::fstat(folder, &status) < 0) {
        why = failed("cannot examine the folder", path());
        return false;
    }
    if (status.st_uid != ::geteuid()) {
        why = "the folder " + path() + " belongs to user " + std::to_string(status.st_uid);
        return false;
    }
    if (status.st_mode & (S_IRWXG | S_IRWXO)) {
        why = "the folder " + path() + " is open to others; its mode has to be 0700";
        return false;
    }
    return true;
}

RuntimeFolder::Result RuntimeFolder::open(Missing missing, UniqueFd& folder, std::string& why) const {
    UniqueFd parent;
    if (const Result result = openParent(parent, why); result != Result::Open) return result;
    const bool created = missing == Missing::Create && ::mkdirat(parent.get(), mName.c_str(), 0700) == 0;
    if (!created && missing == Missing::Create && errno != EEXIST) {
        why = failed("cannot create the folder", path());
        return Result::Unfit;
    }
    UniqueFd opened(::openat(parent.get(), mName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened) {
        why = failed("cannot open the folder", path());
        return errno == ENOENT ? Result::Absent : Result::Unfit;
    }
    // The mode that mkdirat was given went through the umask.
    if (created && ::fchmod(opened.get(), 0700) < 0) {
        why = failed("cannot set the mode of the folder", path());
        return Result::Unfit;
    }
    if (!isFit(opened.get(), why)) return Result::Unfit;
    folder = std::move(opened);
    return Result::Open;
}

bool RuntimeFolder::holdsSocket(const std::string& service) const {
    UniqueFd folder;
    std::string why;
    struct stat status {};
    return open(Missing::Leave, folder, why) == Result::Open &&
           ::fstatat(folder.get(), service.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISSOCK(status.st_mode);
}

Connected connectTo(const std::string& path) {
    SocketAddress address;
    if (!address.set(path)) return {UniqueFd(), ENAMETOOLONG};
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd || ::connect(fd.get(), address.get(), address.size()) < 0) return {UniqueFd(), errno};
    return {std::move(fd), 0};
}

}  // namespace sdbus
