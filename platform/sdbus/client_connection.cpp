// One connection of a client to a service.
#include "platform/sdbus/client_connection.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "platform/sdbus/log.h"
#include "platform/sdbus/wire.h"

namespace sdbus {
namespace {

constexpr char kSource[] = "platform/sdbus/client_connection";

// A service that stops closes what stands in its backlog, and a crowd of silent clients can push an honest one out of
// its handshake. Nothing was sent then, so connecting again does no harm.
constexpr int kConnectAttempts = 5;

// A service says nothing of its own accord over a call's connection; one that has more than this to say is left.
constexpr int kDrainMax = 64;

constexpr std::chrono::milliseconds kBacklogPause{1};

using Progress = ClientConnection::Progress;

bool isAbsence(int error) {
    return error == ENOENT || error == ECONNREFUSED;
}

// Checks the folder, so that no link leads us to somebody else's socket, and who listens.
Connected connectIn(const RuntimeFolder& place, const std::string& service, PeerIdentity& owner, std::string& why) {
    UniqueFd folder;
    const auto result = place.open(RuntimeFolder::Missing::Leave, folder, why);
    if (result == RuntimeFolder::Result::Unfit) return {UniqueFd(), EACCES};
    why.clear();
    if (result == RuntimeFolder::Result::Absent) return {UniqueFd(), ENOENT};
    Connected connected = connectTo(place.socketPath(service));
    if (connected.fd && !identifyPeer(connected.fd.get(), owner)) connected = {UniqueFd(), errno};
    if (!connected.fd) {
        if (!isAbsence(connected.error) && connected.error != EAGAIN) why = std::strerror(connected.error);
        return connected;
    }
    if (isTrustedUser(owner.user)) return connected;
    why = "its socket belongs to user " + std::to_string(owner.user);
    return {UniqueFd(), EACCES};
}

// In the first folder where somebody listens; where nobody does, the first failure that was told counts.
Connected connectChecked(const RuntimeFolder& place, const std::string& service, PeerIdentity& owner,
                         std::string& why) {
    Connected first = connectIn(place, service, owner, why);
    if (first.fd || first.error == EAGAIN || !place.next()) return first;
    std::string whyElse;
    Connected other = connectIn(*place.next(), service, owner, whyElse);
    if (!other.fd && other.error != EAGAIN && !why.empty()) return first;
    why = whyElse;
    return other;
}

// The service is nobody that we greet, and we take no descriptors.
BusPtr startBus(UniqueFd fd) {
    sd_bus* made = nullptr;
    if (sd_bus_new(&made) < 0) return nullptr;
    BusPtr bus(made);
    if (sd_bus_set_fd(made, fd.get(), fd.get()) < 0) return nullptr;
    (void)fd.release();  // the bus closes it
    if (sd_bus_negotiate_fds(made, 0) < 0 || sd_bus_start(made) < 0) return nullptr;
    return bus;
}

}  // namespace

ClientConnection::ClientConnection(BusPtr bus, int fd) : mBus(std::move(bus)), mFd(fd), mInherited(fd) {}

std::unique_ptr<ClientConnection> ClientConnection::open(const RuntimeFolder& place, const std::string& service,
                                                         Failure& failure) {
    PeerIdentity owner{};
    Connected connected = connectChecked(place, service, owner, failure.why);
    failure.error = connected.error;
    if (!connected.fd) return nullptr;
    const int fd = connected.fd.get();
    BusPtr bus = startBus(std::move(connected.fd));
    if (bus) return std::unique_ptr<ClientConnection>(new ClientConnection(std::move(bus), fd));
    failure = {ECONNRESET, ""};
    return nullptr;
}

SDBusErrorType ClientConnection::openReady(const RuntimeFolder& place, const std::string& service,
                                           const Deadline& deadline, std::unique_ptr<ClientConnection>& connection) {
    for (int attempt = 0; attempt < kConnectAttempts;) {
        Failure failure;
        connection = open(place, service, failure);
        if (!connection && !failure.somebodyListens()) {
            if (!failure.why.empty())
                LOG(7, AT "cannot reach service %s: %s", HERE, service.c_str(), failure.why.c_str());
            return SDBusUnreachable;
        }
        if (!connection && failure.error == EAGAIN) {
            if (deadline.hasPassed()) return SDBusTimeout;
            std::this_thread::sleep_for(kBacklogPause);
            continue;
        }
        const Progress progress = connection ? connection->finishHandshake(deadline) : Progress::Lost;
        if (progress == Progress::Done) return SDBusNoError;
        if (progress == Progress::Timeout) return SDBusTimeout;
        ++attempt;
    }
    return SDBusUnreachable;
}

Progress ClientConnection::finishHandshake(const Deadline& deadline, int wake) {
    while (!mReady) {
        const int r = sd_bus_process(mBus.get(), nullptr);
        if (r < 0 || sd_bus_is_open(mBus.get()) <= 0) return Progress::Lost;
        mReady = sd_bus_is_ready(mBus.get()) > 0;
        if (!mReady && deadline.hasPassed()) return Progress::Timeout;
        if (mReady || r > 0) continue;
        const Progress progress = wait(deadline, wake);
        if (progress != Progress::Done) return progress;
    }
    return Progress::Done;
}

bool ClientConnection::isUsable() {
    pollfd readable{mFd, POLLIN, 0};
    if (::poll(&readable, 1, 0) == 0) return true;
    for (int i = 0; i < kDrainMax; ++i) {
        const int r = sd_bus_process(mBus.get(), nullptr);
        if (r < 0 || sd_bus_is_open(mBus.get()) <= 0) return false;
        if (r == 0) return true;
    }
    return false;
}

BusMessagePtr ClientConnection::makeCall(const std::string& interface, const std::string& member) {
    sd_bus_message* message = nullptr;
    (void)sd_bus_message_new_method_call(mBus.get(), &message, nullptr, wire::kPath, interface.c_str(), member.c_str());
    return BusMessagePtr(message);
}

// sd_bus_send writes once, and queues what the socket did not take: where it fails, not a byte has left.
bool ClientConnection::send(sd_bus_message* message, uint64_t& cookie) {
    return sd_bus_send(mBus.get(), message, &cookie) >= 0;
}

Progress ClientConnection::wait(const Deadline& deadline, int wake) {
    uint64_t queued = UINT64_MAX;
    if (sd_bus_get_timeout(mBus.get(), &queued) >= 0 && queued == 0) return Progress::Done;
    const int events = sd_bus_get_events(mBus.get());
    if (events < 0) return Progress::Lost;
    // poll() passes over a negative descriptor.
    std::array<pollfd, 2> polled{pollfd{mFd, static_cast<short>(events), 0}, pollfd{wake, POLLIN, 0}};
    const int r = ::poll(polled.data(), polled.size(), deadline.millisecondsLeft());
    if (r < 0) return errno == EINTR && !deadline.hasPassed() ? Progress::Done : Progress::Timeout;
    if (r == 0) return Progress::Timeout;
    return polled[1].revents != 0 ? Progress::Woken : Progress::Done;
}

Progress ClientConnection::receive(const Deadline& deadline, BusMessagePtr& message, int wake) {
    // Waiting first saves a read that would find nothing: 2 reads a call instead of 3.
    const Progress progress = wait(deadline, wake);
    if (progress != Progress::Done) return progress;
    sd_bus_message* came = nullptr;
    const int r = sd_bus_process(mBus.get(), &came);
    message.reset(came);
    if (r == -ENOMEM) return Progress::NoMemory;
    if (r < 0 || (!came && sd_bus_is_open(mBus.get()) <= 0)) return Progress::Lost;
    return Progress::Done;
}

}  // namespace sdbus
