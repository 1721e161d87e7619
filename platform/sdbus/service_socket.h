// The socket that a service listens on: claimed, made or taken over, and removed again.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "platform/sdbus/fork.h"
#include "platform/sdbus/handles.h"
#include "platform/sdbus/service_lock.h"

namespace sdbus {

class ServiceSocket {
public:
    // Takes the service's lock, then a socket that systemd handed over, or a new one in the runtime folder.
    // Nullopt, and a line for a person, when that can't be.
    static std::optional<ServiceSocket> claim(const std::string& service, std::string& why);

    int fd() const { return mListener.get(); }

    // Takes the name back: removes the socket, if it is of our making, and the lock. Connections that were accepted
    // live on; fd() stays open until closeListener().
    void removeName();
    void closeListener();

private:
    ServiceSocket(UniqueFd folder, ServiceLock lock, UniqueFd listener, std::string name);

    UniqueFd mFolder;
    ServiceLock mLock;
    UniqueFd mListener;
    std::string mName;  // empty for a socket that was handed over: it stays systemd's
    std::unique_ptr<ClosedInChild> mInherited;
};

}  // namespace sdbus
