// Where the sockets stand, and who may have made that folder.
#pragma once

#include <sys/types.h>

#include <memory>
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

    // The same, and where that variable is unset or empty, <userFolders>/<effective user>/sdbus behind it: who runs for
    // a user outside of a session (cron, a command over ssh) looks for the session's services, too.
    static RuntimeFolder forClient(const std::string& userFolders = "/run/user");

    // Where else a client looks; null: nowhere.
    const RuntimeFolder* next() const { return mNext.get(); }

    enum class Missing { Create, Leave };
    enum class Result { Open, Absent, Unfit };
    // Opens the folder after it has passed its checks: it is ours, nobody else may enter it, no link led to it.
    // why: one line for a person unless the result is Open.
    Result open(Missing missing, UniqueFd& folder, std::string& why) const;

    std::string path() const { return mParent + "/" + mName; }
    std::string socketPath(const std::string& service) const { return path() + "/" + service; }

    // Whether the service's socket stands there, in a folder that passes its checks.
    bool holdsSocket(const std::string& service) const;

private:
    enum class Parent { Everybodys, Ours, OursIfThere };
    RuntimeFolder(std::string parent, std::string name, Parent kind)
        : mParent(std::move(parent)), mName(std::move(name)), mKind(kind) {}
    Result openParent(UniqueFd& parent, std::string& why) const;
    bool isFit(int folder, std::string& why) const;

    std::string mParent;
    std::string mName;
    Parent mKind;
    std::shared_ptr<const RuntimeFolder> mNext;
};

// A non-blocking, close-on-exec Unix stream socket connected to `path`, or the errno of why not. Does not wait.
struct Connected {
    UniqueFd fd;
    int error = 0;
};
Connected connectTo(const std::string& path);

}  // namespace sdbus
