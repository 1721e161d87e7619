// The socket that a service listens on.
#include "platform/sdbus/service_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "platform/sdbus/runtime_folder.h"
#include "platform/sdbus/socket_address.h"

namespace sdbus {
namespace {

std::string errnoText() {
    return std::strerror(errno);
}

// The names of the descriptors that systemd handed over, in their order.
std::vector<std::string> handedOverNames() {
    char** names = nullptr;
    const int count = sd_listen_fds_with_names(0, &names);
    std::vector<std::string> result;
    for (int i = 0; i < count; ++i) {
        result.emplace_back(names[i]);
        std::free(names[i]);
    }
    std::free(names);
    return result;
}

// The only descriptor goes to the first service that asks, whatever its name, and to no other.
bool getsOnlyDescriptor(const std::string& service) {
    static auto& sMutex = *new std::mutex;
    static auto& sOwner = *new std::string;
    const std::lock_guard lock(sMutex);
    if (sOwner.empty()) sOwner = service;
    return sOwner == service;
}

// The descriptor meant for the service: one that is named like it, or the only one. -1: there is none.
int handedOverDescriptor(const std::string& service) {
    const std::vector<std::string> names = handedOverNames();
    for (std::size_t i = 0; i < names.size(); ++i)
        if (names[i] == service) return SD_LISTEN_FDS_START + static_cast<int>(i);
    return names.size() == 1 && getsOnlyDescriptor(service) ? SD_LISTEN_FDS_START : -1;
}

// Works on a copy, so that the service can be registered again after it was unregistered.
UniqueFd takeOver(int handed, std::string& why) {
    if (sd_is_socket_unix(handed, SOCK_STREAM, 1, nullptr, 0) <= 0) {
        why = "the descriptor that systemd handed over is no listening Unix stream socket";
        return UniqueFd();
    }
    UniqueFd fd(::fcntl(handed, F_DUPFD_CLOEXEC, 0));
    const int flags = fd ? ::fcntl(fd.get(), F_GETFL) : -1;
    if (flags < 0 || ::fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK) < 0) {
        why = "cannot use the socket that systemd handed over: " + errnoText();
        return UniqueFd();
    }
    return fd;
}

// Makes way for a socket of ours: removes what a dead owner left. Never a socket that somebody listens on, whoever has
// the lock: systemd may hold it.
bool clearPath(int folder, const std::string& name, const std::string& path, std::string& why) {
    struct stat status {};
    if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) < 0) {
        if (errno == ENOENT) return true;
        why = "cannot examine " + path + ": " + errnoText();
        return false;
    }
    if (!S_ISSOCK(status.st_mode)) {
        why = path + " is in the way: it is no socket";
        return false;
    }
    const Connected other = connectTo(path);
    if (other.error != ECONNREFUSED && other.error != ENOENT) {
        PeerIdentity owner{};
        const bool known = other.fd && identifyPeer(other.fd.get(), owner);
        why = "somebody listens on " + path + (known ? ": process " + std::to_string(owner.process) : std::string());
        return false;
    }
    if (::unlinkat(folder, name.c_str(), 0) == 0 || errno == ENOENT) return true;
    why = "cannot remove " + path + ": " + errnoText();
    return false;
}

// Makes the socket with its mode in place before anybody can connect.
UniqueFd listenOn(int folder, const std::string& name, const std::string& path, std::string& why) {
    SocketAddress address;
    if (!address.set(path)) {
        why = "the socket's path is longer than " + std::to_string(SocketAddress::kPathMax) + " bytes: " + path;
        return UniqueFd();
    }
    if (!clearPath(folder, name, path, why)) return UniqueFd();
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd || ::bind(fd.get(), address.get(), address.size()) < 0) {
        why = "cannot make the socket " + path + ": " + errnoText();
        return UniqueFd();
    }
    if (::fchmodat(folder, name.c_str(), 0600, 0) < 0 || ::listen(fd.get(), SOMAXCONN) < 0) {
        why = "cannot listen on the socket " + path + ": " + errnoText();
        (void)::unlinkat(folder, name.c_str(), 0);
        return UniqueFd();
    }
    return fd;
}

}  // namespace

ServiceSocket::ServiceSocket(UniqueFd folder, ServiceLock lock, UniqueFd listener, std::string name)
    : mFolder(std::move(folder)),
      mLock(std::move(lock)),
      mListener(std::move(listener)),
      mName(std::move(name)),
      mInherited(std::make_unique<ClosedInChild>(mListener.get())) {}

std::optional<ServiceSocket> ServiceSocket::claim(const std::string& service, std::string& why) {
    const RuntimeFolder place = RuntimeFolder::fromEnvironment();
    UniqueFd folder;
    if (place.open(RuntimeFolder::Missing::Create, folder, why) != RuntimeFolder::Result::Open) return std::nullopt;
    auto lock = ServiceLock::take(folder.get(), service, why);
    if (!lock) return std::nullopt;
    const int handed = handedOverDescriptor(service);
    UniqueFd listener =
        handed >= 0 ? takeOver(handed, why) : listenOn(folder.get(), service, place.socketPath(service), why);
    if (!listener) {
        lock->remove(folder.get());
        return std::nullopt;
    }
    return ServiceSocket(std::move(folder), std::move(*lock), std::move(listener),
                         handed >= 0 ? std::string() : service);
}

void ServiceSocket::removeName() {
    if (!mName.empty()) (void)::unlinkat(mFolder.get(), mName.c_str(), 0);
    mName.clear();
    mLock.remove(mFolder.get());
}

void ServiceSocket::closeListener() {
    mInherited.reset();
    mListener.reset();
}

}  // namespace sdbus
