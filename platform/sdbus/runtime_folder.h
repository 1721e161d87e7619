// Where the sockets stand, and who may have made that folder.
#pragma once

#include <sys/types.h>

#include <string>

#include "platform/sdbus/handles.h"

namespace sdbus {

// 1 to 64 of A-Z a-z 0-9 . _ -, not beginning with a dot.
bool isServiceName(const std::string& name);

// The same user, and root: who may serve and who may call. Decided by what the kernel says of the other end alone.
bool isTrustedUser(uid_t user);

// Who is at the other end of a connected Unix socket.
struct PeerIdentity {
    uid_t user;
    pid_t process;
};
bool identifyPeer(int fd, PeerIdentity& identity);

// The folder as the environment names it; nothing is looked at until it is opened.
class RuntimeFolder {
public:
    // $XDG_RUNTIME_DIR/sdbus, or where that variable is unset or empty, /tmp/sdbus-<effective user>.
    static RuntimeFolder fromEnvironment();

    enum class Missing { Create, Leave };
    enum class Result { Open, Absent, Unfit };
    // Opens the folder after it has passed its checks: it is ours, nobody else may enter it, no link led to it.
    // why: one line for a person unless the result is Open.
    Result open(Missing missing, UniqueFd& folder, std::string& why) const;

    std::string path() const { return mParent + "/" + mName; }
    std::string socketPath(const std::string& service) const { return path() + "/" + service; }

private:
    RuntimeFolder(std::string parent, std::string name, bool parentIsOurs)
        : mParent(std::move(parent)), mName(std::move(name)), mParentIsOurs(parentIsOurs) {}
    bool openParent(UniqueFd& parent, std::string& why) const;
    bool isFit(int folder, std::string& why) const;

    std::string mParent;
    std::string mName;
    bool mParentIsOurs;  // else it is /tmp, which everybody writes to
};

// A non-blocking, close-on-exec Unix stream socket connected to `path`, or the errno of why not. Does not wait.
struct Connected {
    UniqueFd fd;
    int error = 0;
};
Connected connectTo(const std::string& path);

}  // namespace sdbus
