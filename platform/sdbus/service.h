// One registered service: its socket, its clients, and what they subscribed to.
#pragma once

#include <systemd/sd-id128.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/sdbus/handles.h"
#include "platform/sdbus/log_limiter.h"
#include "platform/sdbus/message.h"
#include "platform/sdbus/peer.h"
#include "platform/sdbus/service_socket.h"

namespace sdbus {

class ServiceLoop;

using RefusalObserver = std::function<void(const SDBusRefusal&)>;

class Service : public std::enable_shared_from_this<Service> {
public:
    Service(ServiceLoop& loop, std::string name, SDBusServiceInterface& interface, ServiceSocket socket,
            RefusalObserver refusalObserver);
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // ---- Any thread ----

    // Begins to serve. False, and a line for a person, when the loop can't take it.
    bool start(std::string& why);

    // Ends the service; see SDBusSerivceManager::unregisterServiceInterface. On the loop's own thread nothing is waited
    // for: what is queued is lost.
    void stop();

    // False when the event can't be sent, or the service has ended.
    bool publish(const Message& event);

    const std::string& name() const { return mName; }
    ServiceLoop& loop() { return mLoop; }
    sd_id128_t id() const { return mId; }

    // ---- The loop's thread, for peers ----

    // Takes a message that came; sd-bus' convention: 0 leaves it to sd-bus.
    int take(Peer& peer, sd_bus_message* message);

    void noteReady(Peer& peer);
    void forget(Peer& peer);
    void enforceBudget();
    bool isStopping() const { return mStopping; }
    bool mayLog();
    void logOfClient(pid_t process, const char* what, const char* reason);

private:
    int watch();
    void acceptPeers();
    void admit(UniqueFd fd);
    void pauseAccepting(int error);
    void resumeAccepting();
    void endOverdueHandshakes();
    void scheduleHandshakeEnd();

    int takeCall(Peer& peer, sd_bus_message* call);
    int takeOrdinaryCall(Peer& peer, sd_bus_message* call);
    int takeControlCall(Peer& peer, sd_bus_message* call);
    int takeHello(Peer& peer, sd_bus_message* call);
    void tellRefusal(const SDBusPeer& peer, const char* reason);
    int refuse(Peer& peer, sd_bus_message* call, const char* error, const char* reason);
    void handle(const std::shared_ptr<Message>& call);

    bool isWanted(const std::string& event);
    void subscribe(Peer& peer, const std::string& event);
    void send(const std::string& event, const std::string& member, const Arguments& arguments, const WirePlan& plan);

    void beginStop(std::function<void()> whenStopped);
    void finishStop();
    std::vector<std::shared_ptr<Peer>> allPeers() const;

    ServiceLoop& mLoop;
    const std::string mName;
    SDBusServiceInterface& mInterface;
    ServiceSocket mSocket;
    const RefusalObserver mRefusalObserver;  // may be empty
    sd_id128_t mId{};
    std::atomic<bool> mEnded{false};

    // Of the loop's thread.
    SourcePtr mAccepting;
    SourcePtr mResumeTimer;
    SourcePtr mHandshakeTimer;
    SourcePtr mStopTimer;
    uint64_t mPeerNumber = 0;
    std::unordered_map<const Peer*, std::shared_ptr<Peer>> mPeers;
    std::deque<Peer*> mHandshakes;  // not finished yet, the oldest first
    LogLimiter mLogLimiter;
    LogLimiter mRefusalLimiter;
    std::atomic<bool> mStopping{false};
    std::function<void()> mWhenStopped;

    // Written on the loop's thread, with the mutex held, which other threads hold to read.
    std::mutex mSubscribersMutex;
    std::unordered_map<std::string, std::vector<Peer*>> mSubscribers;
};

}  // namespace sdbus
