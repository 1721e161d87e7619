// One registered service.
#include "platform/sdbus/service.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <exception>
#include <future>
#include <new>

#include "platform/sdbus/contained.h"
#include "platform/sdbus/log.h"
#include "platform/sdbus/names.h"
#include "platform/sdbus/runtime_folder.h"
#include "platform/sdbus/service_loop.h"
#include "platform/sdbus/wire.h"

namespace sdbus {
namespace {

constexpr char kSource[] = "platform/sdbus/service";

// An honest client sends its whole handshake in one piece, right after connecting.
constexpr std::chrono::seconds kHandshakeLimit{5};
constexpr std::size_t kHandshakesMax = 64;

// Fewer than unfinished handshakes are allowed, so that a crowd of new clients can't push one out before its first
// bytes were looked at.
constexpr int kAcceptsPerTurn = 16;

constexpr std::chrono::seconds kAcceptPause{1};
constexpr std::chrono::seconds kStopLimit{1};

// Our own client asks for a handful.
constexpr std::size_t kSubscriptionsMax = 1024;

constexpr char kErrorInvalidArgs[] = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr char kErrorLimits[] = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr char kErrorNoMemory[] = "org.freedesktop.DBus.Error.NoMemory";
constexpr char kErrorUnknownMethod[] = "org.freedesktop.DBus.Error.UnknownMethod";

uint64_t microseconds(std::chrono::microseconds time) {
    return static_cast<uint64_t>(std::max(time.count(), INT64_C(0)));
}

// Sets off once, or again where it is set off already.
void setTimer(sd_event_source* timer, std::chrono::microseconds in) {
    (void)sd_event_source_set_time_relative(timer, microseconds(in));
    (void)sd_event_source_set_enabled(timer, SD_EVENT_ONESHOT);
}

// Calls `member` of the Service that is handed over, when the timer goes off.
template <void (Service::*member)()>
int addTimer(sd_event* event, Service* service, SourcePtr& timer) {
    const auto onTime = [](sd_event_source*, uint64_t, void* self) {
        contained("a timer of the service", [self] { (static_cast<Service*>(self)->*member)(); });
        return 0;
    };
    constexpr uint64_t kAccuracy = 1000;
    sd_event_source* made = nullptr;
    const int r = sd_event_add_time_relative(event, &made, CLOCK_MONOTONIC, 0, kAccuracy, onTime, service);
    if (r < 0) return r;
    timer.reset(made);
    return sd_event_source_set_enabled(made, SD_EVENT_OFF);
}

int64_t nanosecondsSinceBoot() {
    timespec now{};
    (void)::clock_gettime(CLOCK_BOOTTIME, &now);
    return std::chrono::nanoseconds(std::chrono::seconds(now.tv_sec)).count() + now.tv_nsec;
}

bool isText(const char* text, const char* wanted) {
    return text && std::strcmp(text, wanted) == 0;
}

bool startsWith(const char* text, const char* start) {
    return text && std::strncmp(text, start, std::strlen(start)) == 0;
}

}  // namespace

Service::Service(ServiceLoop& loop, std::string name, SDBusServiceInterface& interface, ServiceSocket socket,
                 RefusalObserver refusalObserver)
    : mLoop(loop),
      mName(std::move(name)),
      mInterface(interface),
      mSocket(std::move(socket)),
      mRefusalObserver(std::move(refusalObserver)) {
    (void)sd_id128_randomize(&mId);
}

Service::~Service() = default;

// ---- Beginning and end ----

bool Service::start(std::string& why) {
    int r = -ESHUTDOWN;
    mLoop.runAndWait([&] { r = watch(); });
    if (r >= 0) return true;
    why = std::string("cannot serve: ") + std::strerror(-r);
    return false;
}

int Service::watch() {
    sd_event* event = mLoop.event();
    int r = addTimer<&Service::resumeAccepting>(event, this, mResumeTimer);
    if (r >= 0) r = addTimer<&Service::endOverdueHandshakes>(event, this, mHandshakeTimer);
    if (r >= 0) r = addTimer<&Service::finishStop>(event, this, mStopTimer);
    if (r < 0) return r;
    const auto onReadiness = [](sd_event_source*, int, uint32_t, void* self) {
        contained("taking a client", [self] { static_cast<Service*>(self)->acceptPeers(); });
        return 0;
    };
    sd_event_source* source = nullptr;
    r = sd_event_add_io(event, &source, mSocket.fd(), EPOLLIN, onReadiness, this);
    mAccepting.reset(source);
    return r;
}

void Service::stop() {
    if (mEnded.exchange(true)) return;
    mSocket.removeName();
    const auto self = shared_from_this();
    if (mLoop.isLoopThread()) {
        beginStop({});
        return finishStop();
    }
    auto stopped = std::make_shared<std::promise<void>>();
    const auto wait = stopped->get_future();
    mLoop.postAlways([self, stopped] { self->beginStop([stopped] { stopped->set_value(); }); });
    stopped.reset();
    wait.wait();
}

// What is queued gets a moment to be written. Each peer leaves when its queue is empty.
void Service::beginStop(std::function<void()> whenStopped) {
    mStopping = true;
    mWhenStopped = std::move(whenStopped);
    mAccepting.reset();
    mResumeTimer.reset();
    mHandshakeTimer.reset();
    mSocket.closeListener();
    if (mStopTimer) setTimer(mStopTimer.get(), kStopLimit);  // first: memory may run out over the rest
    for (const auto& peer : allPeers())
        if (peer->hasNothingQueued()) peer->close();
    if (mPeers.empty()) finishStop();
}

void Service::finishStop() {
    const auto self = shared_from_this();
    const auto whenStopped = std::move(mWhenStopped);
    mWhenStopped = nullptr;
    for (const auto& peer : allPeers()) peer->close();
    mStopTimer.reset();
    if (whenStopped) whenStopped();
}

std::vector<std::shared_ptr<Peer>> Service::allPeers() const {
    std::vector<std::shared_ptr<Peer>> peers;
    peers.reserve(mPeers.size());
    for (const auto& entry : mPeers) peers.push_back(entry.second);
    return peers;
}

// ---- Clients that come and go ----

void Service::acceptPeers() {
    for (int i = 0; i < kAcceptsPerTurn; ++i) {
        UniqueFd fd(::accept4(mSocket.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (fd) {
            admit(std::move(fd));
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED) continue;
        if (errno == EAGAIN) return;
        // Out of descriptors or memory: the socket stays readable, so watching it on would spin.
        return pauseAccepting(errno);
    }
}

void Service::pauseAccepting(int error) {
    if (mayLog()) LOG(7, AT "service %s takes no new clients for now: %s", HERE, mName.c_str(), std::strerror(error));
    (void)sd_event_source_set_enabled(mAccepting.get(), SD_EVENT_OFF);
    setTimer(mResumeTimer.get(), kAcceptPause);
}

void Service::resumeAccepting() {
    if (mAccepting) (void)sd_event_source_set_enabled(mAccepting.get(), SD_EVENT_ON);
}

void Service::admit(UniqueFd fd) {
    PeerIdentity identity{};
    if (!identifyPeer(fd.get(), identity)) return;
    const SDBusPeer client{++mPeerNumber, identity.user, identity.process, nanosecondsSinceBoot()};
    if (!isTrustedUser(identity.user)) {
        constexpr char kReason[] = "it belongs to another user";
        logOfClient(identity.process, "refused", kReason);
        return tellRefusal(client, kReason);
    }
    if (mHandshakes.size() >= kHandshakesMax)
        mHandshakes.front()->cutOff("too many clients have not finished their handshake");
    int error = 0;
    const auto peer = Peer::create(*this, std::move(fd), client, error);
    if (!peer) return logOfClient(identity.process, "refused", std::strerror(-error));
    mPeers.emplace(peer.get(), peer);
    mHandshakes.push_back(peer.get());
    if (mHandshakes.size() == 1) scheduleHandshakeEnd();
    peer->process();
}

void Service::scheduleHandshakeEnd() {
    if (mHandshakes.empty() || !mHandshakeTimer) return;
    const auto left = mHandshakes.front()->admittedAt() + kHandshakeLimit - Peer::Clock::now();
    setTimer(mHandshakeTimer.get(), std::chrono::ceil<std::chrono::microseconds>(left));
}

void Service::endOverdueHandshakes() {
    const auto oldestAllowed = Peer::Clock::now() - kHandshakeLimit;
    while (!mHandshakes.empty() && mHandshakes.front()->admittedAt() <= oldestAllowed)
        mHandshakes.front()->cutOff("it did not finish its handshake");
    scheduleHandshakeEnd();
}

void Service::noteReady(Peer& peer) {
    mHandshakes.erase(std::remove(mHandshakes.begin(), mHandshakes.end(), &peer), mHandshakes.end());
}

void Service::forget(Peer& peer) {
    noteReady(peer);
    {
        const std::lock_guard lock(mSubscribersMutex);
        for (const std::string& event : peer.subscriptions()) {
            const auto found = mSubscribers.find(event);
            auto& peers = found->second;
            peers.erase(std::remove(peers.begin(), peers.end(), &peer), peers.end());
            if (peers.empty()) mSubscribers.erase(found);
        }
    }
    mPeers.erase(&peer);
    if (!mStopping) return resumeAccepting();  // a descriptor is free again
    if (mPeers.empty() && mWhenStopped) finishStop();
}

void Service::enforceBudget() {
    while (mLoop.budget().isExceeded())
        mLoop.budget().largestDebtor().cutOff("it does not read, and too much waits for all clients together");
}

// Whether a line about clients may go out now. Tells how many before it did not.
bool Service::mayLog() {
    unsigned dropped = 0;
    if (!mLogLimiter.allow(dropped)) return false;
    if (dropped > 0) LOG(6, AT "%u lines about clients of service %s were left out", HERE, dropped, mName.c_str());
    return true;
}

void Service::logOfClient(pid_t process, const char* what, const char* reason) {
    if (!mayLog()) return;
    LOG(6, AT "client process %d of service %s is %s: %s", HERE, static_cast<int>(process), mName.c_str(), what,
        reason);
}

// ---- Calls ----

int Service::take(Peer& peer, sd_bus_message* message) {
    uint8_t type = 0;
    if (sd_bus_message_get_type(message, &type) < 0 || type != SD_BUS_MESSAGE_METHOD_CALL) return 1;
    if (mStopping) return 1;
    int result = 1;
    // Its client knows by a lost connection that nobody will answer, nor send what it subscribed to.
    if (!contained("taking a call", [&] { result = takeCall(peer, message); })) peer.close();
    return result;
}

int Service::takeCall(Peer& peer, sd_bus_message* call) {
    const char* interface = sd_bus_message_get_interface(call);
    if (isText(interface, "org.freedesktop.DBus"))
        return isText(sd_bus_message_get_member(call), "Hello") ? takeHello(peer, call) : 0;
    if (startsWith(interface, "org.freedesktop.DBus.")) return 0;
    if (isText(interface, wire::kControlInterface)) return takeControlCall(peer, call);
    return takeOrdinaryCall(peer, call);
}

// What a debugging tool says first, since it takes us for a message bus.
int Service::takeHello(Peer& peer, sd_bus_message* call) {
    const std::string name = peer.uniqueName();
    const int r = sd_bus_reply_method_return(call, "s", name.c_str());
    return r < 0 ? r : 1;
}

void Service::tellRefusal(const SDBusPeer& peer, const char* reason) {
    unsigned untold = 0;
    if (!mRefusalObserver || !mRefusalLimiter.allow(untold)) return;
    contained("the observer of refusals", [&] { mRefusalObserver({peer, reason, untold}); });
}

int Service::refuse(Peer& peer, sd_bus_message* call, const char* error, const char* reason) {
    logOfClient(peer.client().process, "refused a call", reason);
    tellRefusal(peer.client(), reason);
    (void)sd_bus_reply_method_errorf(call, error, "%s", reason);
    return 1;
}

int Service::takeOrdinaryCall(Peer& peer, sd_bus_message* call) {
    const char* member = sd_bus_message_get_member(call);
    const auto method = decodeName(member ? member : "");
    if (!method) return refuse(peer, call, kErrorUnknownMethod, "the method's name is malformed");
    auto arguments = decodeArguments(call);
    if (!arguments) return refuse(peer, call, kErrorInvalidArgs, "its arguments are malformed or too many");
    const auto message = std::make_shared<Message>(Message::kCall, *method, std::move(*arguments));
    message->setPendingCall(std::make_shared<PendingCall>(mLoop, peer.shared_from_this(), call));
    handle(message);
    return 1;
}

void Service::handle(const std::shared_ptr<Message>& call) {
    try {
        (void)mInterface.handleMethodCall(call);
    } catch (const std::bad_alloc&) {
        LOG(7, AT "the handler of %s was short of memory", HERE, call->methodName().c_str());
        call->pendingCall()->refuse(kErrorNoMemory, "there was no memory for it");
    } catch (const std::exception& error) {
        LOG(7, AT "the handler of %s threw: %s", HERE, call->methodName().c_str(), error.what());
    } catch (...) {
        LOG(7, AT "the handler of %s threw", HERE, call->methodName().c_str());
    }
}

int Service::takeControlCall(Peer& peer, sd_bus_message* call) {
    if (!isText(sd_bus_message_get_member(call), wire::kSubscribe))
        return refuse(peer, call, kErrorUnknownMethod, "the layer has no such method");
    const auto arguments = decodeArguments(call);
    const auto* event = arguments && arguments->size() == 1 ? std::get_if<std::string>(&arguments->front()) : nullptr;
    if (!event || !encodeName(*event)) return refuse(peer, call, kErrorInvalidArgs, "no event has such a name");
    if (peer.subscriptions().size() >= kSubscriptionsMax)
        return refuse(peer, call, kErrorLimits, "it has too many subscriptions");
    subscribe(peer, *event);
    const int r = sd_bus_reply_method_return(call, nullptr);
    return r < 0 ? r : 1;
}

// ---- Events ----

void Service::subscribe(Peer& peer, const std::string& event) {
    if (peer.subscriptions().count(event) > 0) return;
    const std::lock_guard lock(mSubscribersMutex);
    auto& peers = mSubscribers[event];
    peers.reserve(peers.size() + 1);
    peer.subscriptions().insert(event);
    peers.push_back(&peer);
}

bool Service::isWanted(const std::string& event) {
    const std::lock_guard lock(mSubscribersMutex);
    return mSubscribers.count(event) > 0;
}

bool Service::publish(const Message& event) {
    const std::string name = event.eventName();
    const auto member = encodeName(name);
    const auto plan = WirePlan::make(event.arguments());
    if (!member || !plan) {
        LOG(7, AT "an event can't be sent: its name or its size is beyond what a message takes", HERE);
        return false;
    }
    if (mEnded || !mLoop.isOfThisProcess()) return false;
    if (!isWanted(name)) return true;
    if (mLoop.isLoopThread()) {
        send(name, *member, event.arguments(), *plan);
        return true;
    }
    // The sender may go on with its message meanwhile.
    auto sendLater = [self = shared_from_this(), name, member = *member, arguments = event.arguments(), plan = *plan] {
        self->send(name, member, arguments, plan);
    };
    if (mLoop.post(std::move(sendLater), plan->bytes())) return true;
    LOG(7, AT "event %s can't be sent: too much waits for the service thread", HERE, name.c_str());
    return false;
}

void Service::send(const std::string& event, const std::string& member, const Arguments& arguments,
                   const WirePlan& plan) {
    const auto found = mSubscribers.find(event);
    if (found == mSubscribers.end()) return;
    // Sending may cut off any peer, so each is held on to.
    std::vector<std::shared_ptr<Peer>> subscribers;
    for (Peer* peer : found->second) subscribers.push_back(peer->shared_from_this());
    // sd-bus takes a message for any connection, whichever it was made for: building one for each would cost as much as
    // sending it.
    BusMessagePtr message;
    for (const auto& peer : subscribers) {
        if (!message) message = peer->makeEvent(member, arguments, plan);
        if (message) (void)peer->send(message.get(), plan.bytes());
    }
}

}  // namespace sdbus
