// The process's idle connections, and the blocking call over one of them.
#include "platform/sdbus/client_pool.h"

#include <map>
#include <vector>

#include "platform/sdbus/client_connection.h"
#include "platform/sdbus/fork.h"
#include "platform/sdbus/log.h"
#include "platform/sdbus/names.h"
#include "platform/sdbus/wire.h"

namespace sdbus {
namespace {

constexpr char kSource[] = "platform/sdbus/client_pool";

// As many as threads that call at a time in a busy client; each costs the service a descriptor and about 3 KiB.
constexpr std::size_t kIdleMax = 64;

using ConnectionPtr = std::unique_ptr<ClientConnection>;
using Progress = ClientConnection::Progress;

// Idle connections by the path of their socket. Guarded by forkMutex().
class Pool {
public:
    static ConnectionPtr take(const std::string& path) {
        const std::lock_guard lock(forkMutex());
        auto& idle = current().mIdle[path];
        if (idle.empty()) return nullptr;
        ConnectionPtr connection = std::move(idle.back());
        idle.pop_back();
        return connection;
    }

    static void give(const std::string& path, ConnectionPtr connection) {
        const std::lock_guard lock(forkMutex());
        auto& idle = current().mIdle[path];
        if (idle.size() < kIdleMax) idle.push_back(std::move(connection));
    }

private:
    // A child leaves its parent's connections alone: sd-bus refuses to touch them there, even to free them. They stay
    // reachable through mParents.
    static Pool& current() {
        static Pool* sPool = new Pool;
        if (sPool->mGeneration != forkGeneration()) sPool = new Pool(sPool);
        return *sPool;
    }

    explicit Pool(Pool* parents = nullptr) : mParents(parents) {}

    const unsigned mGeneration = forkGeneration();
    Pool* const mParents [[maybe_unused]];
    std::map<std::string, std::vector<ConnectionPtr>> mIdle;
};

// One call: where it goes, what it says, and by when it has to be done.
class Call {
public:
    Call(const RuntimeFolder& place, const std::string& service, const Message& call, std::chrono::milliseconds limit)
        : mPlace(place), mService(service), mPath(place.socketPath(service)), mCall(call), mDeadline(limit) {}

    std::shared_ptr<Message> run() {
        const auto member = encodeName(mCall.methodName());
        const auto plan = WirePlan::make(mCall.arguments());
        if (!member || !plan) return notSent("its name or its size is beyond what a message takes");
        // An idle connection that turns out to be dead refuses the call whole. Each turn uses one up.
        while (ConnectionPtr idle = takeReady()) {
            if (auto answer = runOver(idle, *member, *plan)) return answer;
        }
        ConnectionPtr fresh;
        const SDBusErrorType error = ClientConnection::openReady(mPlace, mService, mDeadline, fresh);
        if (error != SDBusNoError) return Message::failure(error);
        auto answer = runOver(fresh, *member, *plan);
        return answer ? answer : Message::failure(SDBusUnreachable);
    }

private:
    ConnectionPtr takeReady() {
        while (ConnectionPtr idle = Pool::take(mPath)) {
            if (idle->finishHandshake(mDeadline) == Progress::Done) return idle;
        }
        return nullptr;
    }

    // Null when the connection was dead before anything was sent.
    std::shared_ptr<Message> runOver(ConnectionPtr& connection, const std::string& member, const WirePlan& plan) {
        uint64_t cookie = 0;
        {
            const BusMessagePtr message = connection->makeCall(wire::kInterface, member);
            if (!message || !plan.append(message.get(), mCall.arguments())) return notSent("sd-bus refused it");
            if (!connection->send(message.get(), cookie)) return nullptr;
        }
        BusMessagePtr answer;
        const Progress progress = connection->awaitAnswer(cookie, mDeadline, answer);
        // Without its answer the connection is of no use: the answer might come during a later call.
        if (progress == Progress::Timeout) return Message::failure(SDBusTimeout);
        if (progress != Progress::Done) return Message::failure(SDBusPeerLost);
        auto result = decodeAnswer(answer.get());
        answer.reset();  // a held message would keep the connection's memory
        if (result) Pool::give(mPath, std::move(connection));
        return result ? result : Message::failure(SDBusPeerLost);
    }

    std::shared_ptr<Message> decodeAnswer(sd_bus_message* answer) {
        auto arguments = decodeArguments(answer);
        if (!arguments) {
            LOG(7, AT "service %s answered with a malformed message", HERE, mService.c_str());
            return nullptr;
        }
        if (sd_bus_message_is_method_error(answer, nullptr) <= 0)
            return std::make_shared<Message>(Message::kReply, "", std::move(*arguments));
        LOG(6, AT "service %s answered with the error %s", HERE, mService.c_str(),
            sd_bus_message_get_error(answer)->name);
        return Message::failure(SDBusErrorReply, std::move(*arguments));
    }

    std::shared_ptr<Message> notSent(const char* why) {
        LOG(7, AT "a call to service %s can't be sent: %s", HERE, mService.c_str(), why);
        return Message::failure(SDBusNotSent);
    }

    const RuntimeFolder& mPlace;
    const std::string& mService;
    const std::string mPath;
    const Message& mCall;
    const Deadline mDeadline;
};

}  // namespace

std::shared_ptr<SDBusMessage> callService(const RuntimeFolder& place, const std::string& service, const Message& call,
                                          std::chrono::milliseconds limit) {
    return Call(place, service, call, limit).run();
}

bool isServiceReachable(const RuntimeFolder& place, const std::string& service) {
    const std::string path = place.socketPath(service);
    while (ConnectionPtr idle = Pool::take(path)) {
        if (!idle->isUsable()) continue;
        Pool::give(path, std::move(idle));
        return true;
    }
    ClientConnection::Failure failure;
    ConnectionPtr connection = ClientConnection::open(place, service, failure);
    if (!connection) return failure.somebodyListens();
    Pool::give(path, std::move(connection));
    return true;
}

}  // namespace sdbus
