// A proxy's events: one connection and one thread that subscribes, reads and calls back.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/sdbus/client_connection.h"
#include "platform/sdbus/handles.h"
#include "platform/sdbus/runtime_folder.h"

namespace sdbus {

// Shared by its owner and its thread: a callback may destroy the owner.
class EventListener : public std::enable_shared_from_this<EventListener> {
public:
    EventListener(RuntimeFolder place, std::string service);
    EventListener(const EventListener&) = delete;
    EventListener& operator=(const EventListener&) = delete;

    // See SDBusProxyInterface::addEventListener.
    bool add(const std::string& event, std::unique_ptr<SDBusEventCallback> callback);

    // Ends the thread. When this returns no callback runs any more, unless one of them called it.
    void stop();

private:
    // Where the subscription to one event stands with the service that is connected.
    enum class State { New, Requested, InForce, Refused };
    struct Subscription {
        std::vector<std::shared_ptr<SDBusEventCallback>> callbacks;
        std::string member;   // how the event's name travels
        uint64_t cookie = 0;  // of the request
        State state = State::New;

        bool isAnswered() const { return state == State::InForce || state == State::Refused; }
    };

    bool ensureRunning();
    bool isOwnThread() const;
    bool isStopped();
    void run();
    void connectAndServe(int& pause);
    std::unique_ptr<ClientConnection> connect();
    void waitBeforeRetry(int milliseconds);
    void serve(ClientConnection& connection);
    bool requestSubscriptions(ClientConnection& connection);
    void take(sd_bus_message* message);
    void takeAnswer(sd_bus_message* message);
    void takeEvent(sd_bus_message* message);
    void call(const SDBusEventCallback& callback, const std::shared_ptr<SDBusMessage>& event);
    void forgetRequests();
    void noteLost();
    void noteInForce();
    void wake();
    void drainWake();

    const RuntimeFolder mPlace;
    const std::string mService;

    std::mutex mMutex;
    UniqueFd mWake;  // an eventfd: something was added, or it is time to stop; there before the thread is
    std::condition_variable mAnswered;
    std::map<std::string, Subscription> mSubscriptions;  // guarded by mMutex, as what follows
    std::unique_ptr<std::thread> mThread;
    bool mStopped = false;

    // The thread's own.
    bool mLost = false;  // whether a line told that events are lost
    std::string mWhyLost;
};

}  // namespace sdbus
