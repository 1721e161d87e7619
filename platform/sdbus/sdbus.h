// The message bus as the client and the service see it. What carries it (D-Bus marshalling over private Unix sockets)
// stays behind this header; docs/protocol.md tells the wire.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#define SDBUS_API __attribute__((visibility("default")))

// What a host's own library of this name may lack: weak for all but the layer itself, so that a caller is loaded
// without it, and asks for its address before the call.
#ifndef SDBUS_OPTIONAL
#define SDBUS_OPTIONAL __attribute__((weak))
#endif

class SDBusSerivceManager;

// Who may exchange a message. There is one rule: processes of the same user, and root.
enum SDBusSecurityFlags : int { SDBusSameUser = 1 };

// Why a call came back as an error message.
enum SDBusErrorType : int {
    SDBusNoError = 0,
    SDBusTimeout = 1,      // no answer within the time-out
    SDBusUnreachable = 2,  // nobody listens under the service's name, or it belongs to another user; nothing was sent
    SDBusPeerLost = 3,     // the service went away before it answered; whether it ran the call is unknown
    SDBusErrorReply = 4,   // the service answered with an error
    SDBusNotSent = 5,      // the message could not be sent: its name or its size is beyond what the wire takes
    SDBusUnread = 6,       // it was sent, and memory ran out over its answer
};

// Who connected to a service, as the kernel had it then.
struct SDBusPeer {
    uint64_t connection;  // no two connections of a service have the same
    uint32_t user;
    int32_t process;     // 0 where it has no number here; once it has ended, another one may have its number
    int64_t admittedNs;  // when the service took the connection, nanoseconds of CLOCK_BOOTTIME
};

// Who was turned away before a call of theirs came to the handler.
struct SDBusRefusal {
    SDBusPeer peer;
    std::string reason;  // for a person
    unsigned untold;     // how many others were turned away since the last one that was told of
};

// A message: a method call, its reply, an error or an event, with a list of typed arguments.
// Reading a position that is absent gives 0, false or "" quietly; reading one of another kind gives the same and logs a
// line. One thread at a time.
// The order of the virtual operations is a contract with hosts that bring their own bus library: keep it.
class SDBUS_API SDBusMessage {
public:
    virtual ~SDBusMessage();
    virtual void appendInt8(int8_t value) = 0;
    virtual void appendInt32(int32_t value) = 0;
    virtual void appendBool(bool value) = 0;
    virtual void appendString(std::string value) = 0;
    virtual void appendCString(const char* value) = 0;  // a null pointer appends ""
    virtual int getInt(int index) = 0;                  // the counterpart of appendInt8
    virtual int32_t getInt32(int index) = 0;
    virtual bool getBool(int index) = 0;
    virtual std::string getString(int index) = 0;

    std::string methodName() const;  // of a call; "" of anything else
    std::string eventName() const;   // of an event; "" of anything else
    int type() const;                // 1 call, 2 reply, 3 error, 4 event
    int getErrorType() const;        // SDBusErrorType; 0 unless type() is 3

    // For tools that look whether the other end means the same: the kinds of the arguments, a letter each. y is int8,
    // i int32, b bool, s string, ? another one.
    std::string signature() const;

    // Who made a call that came in. False, with `peer` left alone, for any other message.
    SDBUS_OPTIONAL static bool peerOf(const SDBusMessage& call, SDBusPeer& peer);

protected:
    SDBusMessage(int type, std::string name, int errorType);
    SDBusMessage(const SDBusMessage&) = delete;
    SDBusMessage& operator=(const SDBusMessage&) = delete;

private:
    const int mType;
    const std::string mName;
    const int mErrorType;
};

// What to run for an event.
class SDBUS_API SDBusEventCallback {
public:
    using Function = std::function<void(std::shared_ptr<SDBusMessage>)>;
    explicit SDBusEventCallback(Function function);
    ~SDBusEventCallback();
    void operator()(std::shared_ptr<SDBusMessage> event) const;

private:
    Function mFunction;
};

// A client's view of one service. Any thread may call any operation at any time.
class SDBUS_API SDBusProxyInterface {
public:
    virtual ~SDBusProxyInterface();

    std::shared_ptr<SDBusMessage> makeMethodCallMessage(const std::string& method);

    // Sends the call and waits for its answer.
    // timeoutMs: milliseconds for everything, connecting and the handshake included; at least 1.
    // Returns a message, never null: of type 2, or of type 3 with a getErrorType() that says why. A call is sent at
    // most once; where std::bad_alloc is raised it was not. After a restart of the service the next call simply works.
    std::shared_ptr<SDBusMessage> callWithReplyBlocking(std::shared_ptr<SDBusMessage> call, int timeoutMs);

    // Sends the calls over one connection, in their order and without a wait in between, and waits for the answers: for
    // a handful of small calls of which none depends on another's answer.
    // timeoutMs: for all of them together; otherwise as callWithReplyBlocking.
    // Returns an answer for each call, in the calls' order. Where one is lost or comes too late the others may be
    // there. Where std::bad_alloc is raised some may have been sent.
    SDBUS_OPTIONAL std::vector<std::shared_ptr<SDBusMessage>> callsWithRepliesBlocking(
        const std::vector<std::shared_ptr<SDBusMessage>>& calls, int timeoutMs);

    // Runs `callback` for every event of that name, on the proxy's own event thread, until the proxy is destroyed.
    // Takes ownership of `callback`. Waits until the service has acknowledged the subscription, a second at most: when
    // that passes, and after a restart of the service, the layer goes on trying by itself; events meanwhile are lost.
    // Returns whether the subscription is in force. Where there is no thread or descriptor for it, that is false, with
    // a line logged, and the callback is destroyed. Raises std::bad_alloc alone.
    bool addEventListener(const std::string& event, SDBusEventCallback* callback, SDBusSecurityFlags flags);

protected:
    explicit SDBusProxyInterface(const std::string& service);

private:
    friend class SDBusSerivceManager;
    struct State;
    std::unique_ptr<State> mState;
};

// A service's end of the bus: what a host derives from. After registration its handler is called on the layer's own
// service thread, one call at a time.
class SDBUS_API SDBusServiceInterface {
public:
    SDBusServiceInterface();
    virtual ~SDBusServiceInterface();

    // Answers one call by makeMethodReplyMessage and sendMessage. Returning false, or an exception (which is logged),
    // sends nothing of itself: the caller waits for its time-out.
    virtual bool handleMethodCall(std::shared_ptr<SDBusMessage> call) = 0;

    std::shared_ptr<SDBusMessage> makeMethodReplyMessage(std::shared_ptr<SDBusMessage> call, SDBusSecurityFlags flags);
    std::shared_ptr<SDBusMessage> makeEventMessage(const std::string& event, SDBusSecurityFlags flags);

    // Sends a reply. Any thread. False when its caller is gone, or when the message can't be sent (a line is logged).
    bool sendMessage(std::shared_ptr<SDBusMessage> reply);

    // Sends an event to the clients of this service that asked for its name. Any thread. Holds up nobody: a subscriber
    // that does not read is cut off at a bound. False when the interface is not registered or the event can't be sent.
    bool publishEvent(std::shared_ptr<SDBusMessage> event);

    // Has `observer` told, on the service thread, of clients of another user and of calls that are malformed: of the
    // first 20 in 10 s, so that nobody can flood it. To be called before the registration.
    SDBUS_OPTIONAL void observeRefusals(std::function<void(const SDBusRefusal&)> observer);

    SDBusServiceInterface(const SDBusServiceInterface&) = delete;
    SDBusServiceInterface& operator=(const SDBusServiceInterface&) = delete;

private:
    friend class SDBusSerivceManager;
    struct State;
    std::unique_ptr<State> mState;
};

// The process's door to the bus.
class SDBUS_API SDBusSerivceManager {
public:
    // The process's one manager, never null and never destroyed. timeoutMs is accepted for the contract's sake; the
    // callers pass -1.
    static SDBusSerivceManager* initSync(int timeoutMs);

    // Whether somebody listens under the name and belongs to this user or to root. Does not wait.
    bool isServiceRegistered(const std::string& service);

    // A proxy to the service. Connects when first used, so an absent service does not matter here.
    // Null when the name can't be a service's (see registerServiceInterface).
    std::shared_ptr<SDBusProxyInterface> getServiceProxyInterface(const std::string& service, SDBusSecurityFlags flags,
                                                                  int version);

    // Serves `interface`, which stays the caller's and has to outlive its registration, under the name: 1 to 64 of
    // A-Z a-z 0-9 . _ -, not beginning with a dot. version: 1.
    // Returns false, with a line logged and registrationFailure() telling why, when the name is taken, the runtime
    // folder is unfit, or the socket can't be made.
    bool registerServiceInterface(const std::string& service, SDBusServiceInterface* interface,
                                  SDBusSecurityFlags flags, int version);

    std::shared_ptr<SDBusMessage> makeEventMessage(const std::string& event, SDBusSecurityFlags flags);

    // Sends an event to the subscribers of every service that this process registered. Any thread; otherwise as
    // SDBusServiceInterface::publishEvent.
    bool publishEvent(std::shared_ptr<SDBusMessage> event);

    // ---- For hosts and tools ----

    // Ends the service: the call in hand is answered, what is queued is written (for a second at most), clients are
    // disconnected, the socket and its lock are removed. Not from the handler. Does nothing for a name not served here.
    // At exit() this happens by itself, before objects are destroyed that were there when the service was registered.
    void unregisterServiceInterface(const std::string& service);

    // Why the name is not served by this process: "" when it is, else one line for a person.
    std::string registrationFailure(const std::string& service);

    // The process that serves the name, by the lock beside its socket; 0 when nobody does. Whoever merely listens there
    // does not count: systemd holds the socket of a service that it has yet to start.
    int serviceProcess(const std::string& service);

    // Where the service's socket stands, or would; "" when there is no fit runtime folder.
    std::string socketPath(const std::string& service);

    // Where a service that nobody reaches was looked for, or why not: a line for a person.
    std::string lookedAt(const std::string& service);

    SDBusSerivceManager(const SDBusSerivceManager&) = delete;
    SDBusSerivceManager& operator=(const SDBusSerivceManager&) = delete;

private:
    friend class SDBusServiceInterface;
    SDBusSerivceManager();
    ~SDBusSerivceManager();
    struct State;
    std::unique_ptr<State> mState;
};
