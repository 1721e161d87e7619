// A proxy's events.
#include "platform/sdbus/event_listener.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>

#include "platform/sdbus/contained.h"
#include "platform/sdbus/log.h"
#include "platform/sdbus/message.h"
#include "platform/sdbus/names.h"
#include "platform/sdbus/threads.h"
#include "platform/sdbus/wire.h"

namespace sdbus {
namespace {

constexpr char kSource[] = "platform/sdbus/event_listener";

constexpr std::chrono::seconds kAcknowledgementWait{1};
constexpr std::chrono::seconds kConnectWait{5};
constexpr int kRetryLeastMs = 10;
constexpr int kRetryMostMs = 500;

using Progress = ClientConnection::Progress;

Deadline never() {
    return Deadline(std::chrono::hours(24 * 365));
}

}  // namespace

EventListener::EventListener(RuntimeFolder place, std::string service)
    : mPlace(std::move(place)), mService(std::move(service)) {}

bool EventListener::add(const std::string& event, std::unique_ptr<SDBusEventCallback> callback) {
    const auto member = encodeName(event);
    if (!member) {
        LOG(7, AT "an event's name of %zu bytes is too long", HERE, event.size());
        return false;
    }
    std::unique_lock lock(mMutex);
    if (mStopped || !ensureRunning()) return false;
    Subscription& subscription = mSubscriptions[event];
    subscription.member = *member;
    subscription.callbacks.push_back(std::move(callback));
    wake();
    // The thread that would take the acknowledgement must not wait for it.
    if (!isOwnThread())
        mAnswered.wait_for(lock, kAcknowledgementWait, [&] { return subscription.isAnswered() || mStopped; });
    return subscription.state == State::InForce;
}

// False, with a line logged, where there is no descriptor or no thread.
bool EventListener::ensureRunning() {
    if (mThread) return true;
    if (!mWake) mWake.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (mWake)
        mThread = startThread("sdbus-events", [self = shared_from_this()] { self->run(); });
    else
        LOG(7, AT "no descriptor for the events of service %s: %s", HERE, mService.c_str(), std::strerror(errno));
    return mThread != nullptr;
}

bool EventListener::isOwnThread() const {
    return mThread && mThread->get_id() == std::this_thread::get_id();
}

bool EventListener::isStopped() {
    const std::lock_guard lock(mMutex);
    return mStopped;
}

void EventListener::stop() {
    std::unique_ptr<std::thread> thread;
    bool own = false;
    {
        const std::lock_guard lock(mMutex);
        own = isOwnThread();
        mStopped = true;
        thread = std::move(mThread);
        wake();
    }
    mAnswered.notify_all();
    if (!thread) return;
    own ? thread->detach() : thread->join();
}

void EventListener::wake() {
    (void)::eventfd_write(mWake.get(), 1);
}

void EventListener::drainWake() {
    eventfd_t count = 0;
    (void)::eventfd_read(mWake.get(), &count);
}

void EventListener::run() {
    int pause = kRetryLeastMs;
    while (!isStopped()) {
        contained("the thread of a service's events", [&] { connectAndServe(pause); });
        forgetRequests();
        if (isStopped()) return;
        contained("a loss of events", [this] { noteLost(); });
        waitBeforeRetry(pause);
        pause = std::min(pause * 2, kRetryMostMs);
    }
}

void EventListener::connectAndServe(int& pause) {
    const auto connection = connect();
    if (!connection) return;
    pause = kRetryLeastMs;
    serve(*connection);
}

std::unique_ptr<ClientConnection> EventListener::connect() {
    ClientConnection::Failure failure;
    auto connection = ClientConnection::open(mPlace, mService, failure);
    mWhyLost = failure.why;
    if (!connection) return nullptr;
    const Deadline deadline(kConnectWait);
    for (;;) {
        const Progress progress = connection->finishHandshake(deadline, mWake.get());
        if (progress == Progress::Done) return connection;
        if (progress != Progress::Woken || isStopped()) return nullptr;
        drainWake();
    }
}

void EventListener::waitBeforeRetry(int milliseconds) {
    const Deadline deadline{std::chrono::milliseconds(milliseconds)};
    while (!isStopped() && !deadline.hasPassed()) {
        pollfd woken{mWake.get(), POLLIN, 0};
        if (::poll(&woken, 1, deadline.millisecondsLeft()) > 0) drainWake();
    }
}

void EventListener::serve(ClientConnection& connection) {
    while (!isStopped()) {
        if (!requestSubscriptions(connection)) return;
        BusMessagePtr message;
        const Progress progress = connection.receive(never(), message, mWake.get());
        if (progress == Progress::Lost || progress == Progress::NoMemory) return;
        if (progress == Progress::Woken) drainWake();
        // Where memory runs out an event is lost, but not those behind it.
        if (message) contained("taking an event", [&] { take(message.get()); });
    }
}

bool EventListener::requestSubscriptions(ClientConnection& connection) {
    const std::lock_guard lock(mMutex);
    for (auto& [event, subscription] : mSubscriptions) {
        if (subscription.state != State::New) continue;
        const BusMessagePtr request = connection.makeCall(wire::kControlInterface, wire::kSubscribe);
        const Arguments arguments{event};
        const auto plan = WirePlan::make(arguments);
        if (!request || !plan || !plan->append(request.get(), arguments)) return false;
        if (!connection.send(request.get(), subscription.cookie)) return false;
        subscription.state = State::Requested;
    }
    return true;
}

void EventListener::take(sd_bus_message* message) {
    uint8_t type = 0;
    if (sd_bus_message_get_type(message, &type) < 0) return;
    if (type == SD_BUS_MESSAGE_SIGNAL) return takeEvent(message);
    if (type == SD_BUS_MESSAGE_METHOD_RETURN || type == SD_BUS_MESSAGE_METHOD_ERROR) takeAnswer(message);
}

void EventListener::takeAnswer(sd_bus_message* message) {
    uint64_t cookie = 0;
    if (sd_bus_message_get_reply_cookie(message, &cookie) < 0) return;
    const bool refused = sd_bus_message_is_method_error(message, nullptr) > 0;
    bool allInForce = true;
    {
        const std::lock_guard lock(mMutex);
        for (auto& [event, subscription] : mSubscriptions) {
            if (subscription.state == State::Requested && subscription.cookie == cookie)
                subscription.state = refused ? State::Refused : State::InForce;
            allInForce = allInForce && subscription.state == State::InForce;
        }
    }
    mAnswered.notify_all();
    if (refused) return LOG(6, AT "service %s refused a subscription", HERE, mService.c_str());
    if (allInForce) noteInForce();
}

void EventListener::takeEvent(sd_bus_message* message) {
    // sd-bus tells of a lost connection by a signal of its own.
    if (sd_bus_message_is_signal(message, wire::kInterface, nullptr) <= 0) return;
    const char* member = sd_bus_message_get_member(message);
    const auto name = decodeName(member ? member : "");
    if (!name) return LOG(6, AT "service %s sent an event of a malformed name", HERE, mService.c_str());
    std::vector<std::shared_ptr<SDBusEventCallback>> callbacks;
    {
        const std::lock_guard lock(mMutex);
        const auto found = mSubscriptions.find(*name);
        if (found == mSubscriptions.end()) return;
        callbacks = found->second.callbacks;
    }
    auto arguments = decodeArguments(message);
    if (!arguments) return LOG(6, AT "service %s sent a malformed event", HERE, mService.c_str());
    const auto event = std::make_shared<Message>(Message::kEvent, *name, std::move(*arguments));
    for (const auto& callback : callbacks) {
        if (isStopped()) return;
        call(*callback, event);
    }
}

void EventListener::call(const SDBusEventCallback& callback, const std::shared_ptr<SDBusMessage>& event) {
    try {
        callback(event);
    } catch (const std::exception& error) {
        LOG(7, AT "a callback of event %s threw: %s", HERE, event->eventName().c_str(), error.what());
    } catch (...) {
        LOG(7, AT "a callback of event %s threw", HERE, event->eventName().c_str());
    }
}

void EventListener::forgetRequests() {
    const std::lock_guard lock(mMutex);
    for (auto& entry : mSubscriptions) entry.second.state = State::New;
}

void EventListener::noteLost() {
    if (mLost) return;
    mLost = true;
    LOG(6, AT "service %s can't be reached: its events are lost until it is back%s%s", HERE, mService.c_str(),
        mWhyLost.empty() ? "" : "; ", mWhyLost.c_str());
}

void EventListener::noteInForce() {
    if (!mLost) return;
    mLost = false;
    LOG(5, AT "service %s is back: its events arrive again", HERE, mService.c_str());
}

}  // namespace sdbus
