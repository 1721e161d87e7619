// One connected client of a service.
#include "platform/sdbus/peer.h"

#include <sys/epoll.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "platform/sdbus/contained.h"
#include "platform/sdbus/log.h"
#include "platform/sdbus/service.h"
#include "platform/sdbus/service_loop.h"
#include "platform/sdbus/wire.h"

namespace sdbus {
namespace {

constexpr char kSource[] = "platform/sdbus/peer";

// So that one client that floods us does not hold up the others: the turn ends with the message that reaches either.
constexpr int kMessagesPerTurn = 16;
constexpr std::chrono::milliseconds kTurnLimit{50};

// What a message takes in a queue besides its arguments: its header and sd-bus' bookkeeping.
constexpr std::size_t kMessageOverhead = 1024;

bool hasLeft(int error) {
    return error == -ECONNRESET || error == -ENOTCONN || error == -EPIPE;
}

}  // namespace

Peer::Peer(Service& service, const SDBusPeer& client, int fd)
    : mService(service.shared_from_this()),
      mClient(client),
      mInherited(std::make_unique<ClosedInChild>(fd)),
      mQueue(service.loop().budget(), *this) {}

Peer::~Peer() = default;

int Peer::onMessage(sd_bus_message* message, void* peer, sd_bus_error*) {
    auto& self = *static_cast<Peer*>(peer);
    return self.mService->take(self, message);
}

std::shared_ptr<Peer> Peer::create(Service& service, UniqueFd fd, const SDBusPeer& client, int& error) {
    std::shared_ptr<Peer> peer(new Peer(service, client, fd.get()));
    error = peer->start(std::move(fd));
    return error < 0 ? nullptr : peer;
}

int Peer::start(UniqueFd fd) {
    sd_bus* made = nullptr;
    int r = sd_bus_new(&made);
    if (r < 0) return r;
    mBus.reset(made);
    r = sd_bus_set_fd(made, fd.get(), fd.get());
    if (r < 0) return r;
    const int number = fd.release();  // the bus closes it
    if ((r = sd_bus_set_server(made, 1, mService->id())) < 0) return r;
    // A client could park a thousand descriptors here in a message that it never finishes.
    if ((r = sd_bus_negotiate_fds(made, 0)) < 0) return r;
    if ((r = sd_bus_add_filter(made, nullptr, onMessage, this)) < 0) return r;
    if ((r = sd_bus_start(made)) < 0) return r;

    const auto onReadiness = [](sd_event_source*, int, uint32_t, void* peer) {
        static_cast<Peer*>(peer)->process();
        return 0;
    };
    const auto onRest = [](sd_event_source*, uint64_t, void* peer) {
        static_cast<Peer*>(peer)->process();
        return 0;
    };
    sd_event* event = mService->loop().event();
    sd_event_source* source = nullptr;
    if ((r = sd_event_add_io(event, &source, number, EPOLLIN, onReadiness, this)) < 0) return r;
    mReadiness.reset(source);
    // A timer that goes off at once takes its turn behind what is pending already. A deferred source would come before
    // everything else, again and again.
    constexpr uint64_t kAccuracy = 1;
    if ((r = sd_event_add_time_relative(event, &source, CLOCK_MONOTONIC, 0, kAccuracy, onRest, this)) < 0) return r;
    mRest.reset(source);
    return sd_event_source_set_enabled(source, SD_EVENT_OFF);
}

void Peer::process() noexcept {
    const auto self = weak_from_this().lock();
    if (!self || contained("the turn of a client", [this] { takeTurn(); })) return;
    mProcessing = false;
    contained("closing a client", [this] { close(); });
}

void Peer::takeTurn() {
    if (!mBus || mProcessing) return;
    mProcessing = true;
    const int r = processMessages();
    mProcessing = false;
    if (mDoomed || hasLeft(r) || sd_bus_is_open(mBus.get()) <= 0) return close();
    // sd-bus leaves a connection open after these, and its client would wait for nothing.
    if (r < 0) return cutOff(std::strerror(-r));
    settleQueue();
    if (mQueue.isTooLong()) return cutOff("it does not read its answers");
    if (!mReady && sd_bus_is_ready(mBus.get()) > 0) {
        mReady = true;
        mService->noteReady(*this);
    }
    if (mService->isStopping() && mQueue.isEmpty()) return close();
    rearm();
}

// Ends early when nothing is left in sd-bus' own queue: what is left in the socket wakes the loop again, and a read
// that would find nothing is saved on every call. Not before sd-bus has caught up with what came along with the
// handshake: it reads that ahead, and from then on message by message.
int Peer::processMessages() {
    const auto end = Clock::now() + kTurnLimit;
    for (int i = 0; i < kMessagesPerTurn && Clock::now() < end; ++i) {
        const int r = sd_bus_process(mBus.get(), nullptr);
        if (r == 0 && mReady) mCaughtUp = true;
        if (r <= 0 || !isOpen()) return r;
        uint64_t left = 0;
        if (mCaughtUp && sd_bus_get_n_queued_read(mBus.get(), &left) >= 0 && left == 0) return r;
    }
    processRestLater();
    return 1;
}

void Peer::processRestLater() {
    (void)sd_event_source_set_time_relative(mRest.get(), 0);
    (void)sd_event_source_set_enabled(mRest.get(), SD_EVENT_ONESHOT);
}

void Peer::settleQueue() {
    uint64_t queued = 0;
    if (mBus && sd_bus_get_n_queued_write(mBus.get(), &queued) >= 0) mQueue.settle(queued);
}

// sd-bus' time-outs are left alone but for "at once": the only other one of a server is the handshake's, 90 s, and the
// service ends that sooner.
void Peer::rearm() {
    const int events = sd_bus_get_events(mBus.get());
    uint64_t timeout = UINT64_MAX;
    if (events < 0 || sd_bus_get_timeout(mBus.get(), &timeout) < 0) return close();
    (void)sd_event_source_set_io_events(mReadiness.get(), static_cast<uint32_t>(events));
    if (timeout == 0) processRestLater();
}

bool Peer::send(sd_bus_message* message, std::size_t bytes) {
    if (!isOpen()) return false;
    bytes += kMessageOverhead;
    settleQueue();
    if (!mQueue.admits(bytes)) {
        cutOff("it does not read what it is sent");
        return false;
    }
    const int r = sd_bus_send(mBus.get(), message, nullptr);
    if (r < 0) {
        if (!hasLeft(r)) LOG(7, AT "sd_bus_send failed: %s", HERE, std::strerror(-r));
        close();
        return false;
    }
    mQueue.add(bytes);
    settleQueue();
    // What was sent outside the peer's own turn may have to wait for the socket.
    if (!mProcessing) rearm();
    mService->enforceBudget();
    return isOpen();
}

bool Peer::sendReply(sd_bus_message* call, const Arguments& arguments, const WirePlan& plan) {
    if (!isOpen()) return false;
    sd_bus_message* made = nullptr;
    const int r = sd_bus_message_new_method_return(call, &made);
    const BusMessagePtr reply(made);
    if (r < 0 || !plan.append(made, arguments)) {
        LOG(7, AT "a reply can't be sent: sd-bus refused it", HERE);
        return false;
    }
    return send(made, plan.bytes());
}

BusMessagePtr Peer::makeEvent(const std::string& member, const Arguments& arguments, const WirePlan& plan) {
    if (!isOpen()) return nullptr;
    sd_bus_message* made = nullptr;
    const int r = sd_bus_message_new_signal(mBus.get(), &made, wire::kPath, wire::kInterface, member.c_str());
    BusMessagePtr event(made);
    if (r >= 0 && plan.append(made, arguments)) return event;
    LOG(7, AT "an event can't be sent: sd-bus refused it", HERE);
    return nullptr;
}

void Peer::cutOff(const char* reason) {
    if (mDoomed || !mBus) return;
    mService->logOfClient(mClient.process, "cut off", reason);
    close();
}

void Peer::close() {
    if (!mBus) return;
    mDoomed = true;
    mQueue.settle(0);
    if (mProcessing) return;
    const auto self = shared_from_this();
    mReadiness.reset();
    mRest.reset();
    mBus.reset();
    mInherited.reset();
    mService->forget(*this);
}

PendingCall::PendingCall(ServiceLoop& loop, const std::shared_ptr<Peer>& caller, sd_bus_message* call)
    : mLoop(loop),
      mPeer(caller->client()),
      mCaller(caller),
      mCall(sd_bus_message_ref(call)),
      mWantsReply(sd_bus_message_get_expect_reply(call) > 0) {}

PendingCall::~PendingCall() {
    sd_bus_message* call = mCall.release();
    if (!mLoop.isOfThisProcess()) return;  // the parent's, not to be touched
    if (mLoop.isLoopThread()) {
        sd_bus_message_unref(call);
    } else {
        mLoop.postAlways([call] { sd_bus_message_unref(call); });
    }
}

void PendingCall::refuse(const char* error, const char* reason) {
    if (mAnswered.exchange(true) || !mWantsReply) return;
    const auto caller = mCaller.lock();
    if (caller && sd_bus_reply_method_errorf(mCall.get(), error, "%s", reason) < 0) caller->close();
}

bool PendingCall::answer(const Message& reply) {
    const auto plan = WirePlan::make(reply.arguments());
    if (!plan) {
        LOG(7, AT "a reply can't be sent: its size is beyond what a message takes", HERE);
        return false;
    }
    if (!mLoop.isOfThisProcess()) return false;
    if (mAnswered.exchange(true)) {
        LOG(7, AT "a call was answered before", HERE);
        return false;
    }
    if (!mWantsReply) return true;
    if (mLoop.isLoopThread()) {
        const auto caller = mCaller.lock();
        return caller && caller->sendReply(mCall.get(), reply.arguments(), *plan);
    }
    if (mCaller.expired()) return false;
    // The sender may go on with its message meanwhile.
    auto send = [self = shared_from_this(), arguments = reply.arguments(), plan = *plan] {
        if (const auto caller = self->mCaller.lock()) caller->sendReply(self->mCall.get(), arguments, plan);
    };
    if (mLoop.post(std::move(send), plan->bytes())) return true;
    LOG(7, AT "a reply can't be sent: too much waits for the service thread", HERE);
    return false;
}

}  // namespace sdbus
