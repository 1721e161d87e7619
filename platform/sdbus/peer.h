// One connected client of a service.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "platform/sdbus/fork.h"
#include "platform/sdbus/handles.h"
#include "platform/sdbus/message.h"
#include "platform/sdbus/write_queue.h"

namespace sdbus {

class Service;
class ServiceLoop;

// Of the loop's thread. Whoever sends to a peer holds a shared pointer: a peer that is cut off leaves its service at
// once.
class Peer : public std::enable_shared_from_this<Peer> {
public:
    using Clock = std::chrono::steady_clock;

    // Null, and the errno-style error, when sd-bus refuses.
    static std::shared_ptr<Peer> create(Service& service, UniqueFd fd, const SDBusPeer& client, int& error);
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // Does what the connection has to do, a bounded share of it. Throws nothing: a peer for which that fails is closed.
    void process() noexcept;

    // False when the client is gone, or cut off for what it has not read.
    bool send(sd_bus_message* message, std::size_t bytes);
    bool sendReply(sd_bus_message* call, const Arguments& arguments, const WirePlan& plan);
    // An event to send, to other peers as well. Null where the client is gone, or sd-bus refuses it.
    BusMessagePtr makeEvent(const std::string& member, const Arguments& arguments, const WirePlan& plan);

    void cutOff(const char* reason);
    // Disconnects; the last thing that happens to a peer. Inside process() it takes effect at its end.
    void close();

    bool hasNothingQueued() const { return mQueue.isEmpty(); }
    const SDBusPeer& client() const { return mClient; }
    Clock::time_point admittedAt() const { return mAdmittedAt; }
    std::string uniqueName() const { return ":1." + std::to_string(mClient.connection); }
    std::set<std::string>& subscriptions() { return mSubscriptions; }

private:
    Peer(Service& service, const SDBusPeer& client, int fd);
    int start(UniqueFd fd);
    static int onMessage(sd_bus_message* message, void* peer, sd_bus_error* error);
    bool isOpen() const { return mBus && !mDoomed && sd_bus_is_open(mBus.get()) > 0; }
    void takeTurn();
    int processMessages();
    void processRestLater();
    void settleQueue();
    void rearm();

    const std::shared_ptr<Service> mService;
    const SDBusPeer mClient;
    const Clock::time_point mAdmittedAt = Clock::now();
    std::unique_ptr<ClosedInChild> mInherited;
    BusPtr mBus;
    SourcePtr mReadiness;
    SourcePtr mRest;  // runs again what was left over of a turn
    WriteQueue mQueue;
    std::set<std::string> mSubscriptions;
    bool mReady = false;     // the handshake is finished
    bool mCaughtUp = false;  // nothing is left that sd-bus read along with it
    bool mProcessing = false;
    bool mDoomed = false;
};

// A call that waits for its reply. The handler may keep it, and may answer from any thread.
class PendingCall : public std::enable_shared_from_this<PendingCall> {
public:
    PendingCall(ServiceLoop& loop, const std::shared_ptr<Peer>& caller, sd_bus_message* call);
    ~PendingCall();
    PendingCall(const PendingCall&) = delete;
    PendingCall& operator=(const PendingCall&) = delete;

    // False when the caller is gone, was answered already, or can't be sent this.
    bool answer(const Message& reply);

    // Answers with an error, unless it was answered. On the loop's thread.
    void refuse(const char* error, const char* reason);

    const SDBusPeer& peer() const { return mPeer; }

private:
    ServiceLoop& mLoop;
    const SDBusPeer mPeer;
    const std::weak_ptr<Peer> mCaller;
    BusMessagePtr mCall;  // touched on the loop's thread alone: sd-bus counts its users without locks
    const bool mWantsReply;
    std::atomic<bool> mAnswered{false};
};

}  // namespace sdbus
