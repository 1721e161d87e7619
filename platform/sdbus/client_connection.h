// One connection of a client to a service.
#pragma once

#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/deadline.h"
#include "platform/sdbus/fork.h"
#include "platform/sdbus/handles.h"
#include "platform/sdbus/message.h"
#include "platform/sdbus/runtime_folder.h"

namespace sdbus {

using sd::Deadline;

// One thread at a time.
class ClientConnection {
public:
    enum class Progress { Done, Timeout, Lost, Woken, NoMemory };

    struct Failure {
        int error = 0;    // EAGAIN: somebody listens, and his backlog is full; ECONNRESET: he hung up at once
        std::string why;  // one line for a person; empty when simply nobody is there

        bool somebodyListens() const { return error == EAGAIN || error == ECONNRESET; }
    };
    // Connects without waiting. Null when there is nobody, or somebody else than this user or root.
    static std::unique_ptr<ClientConnection> open(const RuntimeFolder& place, const std::string& service,
                                                  Failure& failure);

    // Connects within the deadline, trying again while the backlog is full, and finishes the handshake.
    // SDBusNoError: `connection` is ready; nothing was sent over it yet in any case.
    static SDBusErrorType openReady(const RuntimeFolder& place, const std::string& service, const Deadline& deadline,
                                    std::unique_ptr<ClientConnection>& connection);

    // Drives the handshake. wake: a descriptor that ends the wait when it becomes readable; -1 for none.
    Progress finishHandshake(const Deadline& deadline, int wake = -1);

    // Whether an idle connection is still good: drains what came meanwhile, notices that the service went away.
    bool isUsable();

    // A message of this connection. Null only without memory.
    BusMessagePtr makeCall(const std::string& interface, const std::string& member);

    // False: the connection is lost and nothing of the message went over it, so that it may go over another.
    bool send(sd_bus_message* message, uint64_t& cookie);

    // The next message that came. Done without one: look again. After NoMemory the connection is of no use.
    Progress receive(const Deadline& deadline, BusMessagePtr& message, int wake = -1);

private:
    ClientConnection(BusPtr bus, int fd);
    Progress wait(const Deadline& deadline, int wake);

    BusPtr mBus;
    int mFd;  // the bus owns it
    ClosedInChild mInherited;
    bool mReady = false;
};

}  // namespace sdbus
