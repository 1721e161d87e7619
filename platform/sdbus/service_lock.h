// The lock file beside a service's socket: who owns the name.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "platform/sdbus/fork.h"
#include "platform/sdbus/handles.h"

namespace sdbus {

// The lock is the kernel's, on the open file: it ends with its process, however that ends. The file holds the process
// id as text, for people and for serviceProcess().
class ServiceLock {
public:
    // folder: the checked runtime folder. Nullopt, and a line for a person, when the name is taken or the file unfit.
    static std::optional<ServiceLock> take(int folder, const std::string& service, std::string& why);

    // Removes the file and lets go of the lock.
    void remove(int folder);

private:
    ServiceLock(UniqueFd fd, std::string name);

    UniqueFd mFd;
    std::string mName;
    std::unique_ptr<ClosedInChild> mInherited;
};

// The process that holds the lock; 0 when nobody does.
pid_t lockHolder(int folder, const std::string& service);

}  // namespace sdbus
