// The process's idle connections, and the blocking calls over one of them.
#include "platform/sdbus/client_pool.h"

#include <algorithm>
#include <map>
#include <new>
#include <optional>
#include <utility>

#include "platform/sdbus/client_connection.h"
#include "platform/sdbus/contained.h"
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

// Calls that go together: where they go, what they say, by when they have to be done, and what came of each.
class Exchange {
public:
    Exchange(const RuntimeFolder& place, const std::string& service, const std::vector<const Message*>& calls,
             std::chrono::milliseconds limit)
        : mPlace(place), mService(service), mPath(place.socketPath(service)), mDeadline(limit) {
        mCalls.reserve(calls.size());
        mAnswers.reserve(calls.size());
        for (const Message* call : calls) mCalls.emplace_back(*call);
    }

    Answers run() {
        for (Call& call : mCalls)
            if (!call.member || !call.plan)
                call.answer = notSent("its name or its size is beyond what a message takes");
        // An idle connection that turns out to be dead refuses the calls whole. Each turn uses one up.
        while (!isSettled()) {
            ConnectionPtr idle = takeReady();
            if (!idle) break;
            runOver(idle);
        }
        if (isSettled()) return answers();
        ConnectionPtr fresh;
        const SDBusErrorType error = ClientConnection::openReady(mPlace, mService, mDeadline, fresh);
        if (error == SDBusNoError) runOver(fresh);
        settle(error == SDBusNoError ? SDBusUnreachable : error);
        return answers();
    }

private:
    struct Call {
        explicit Call(const Message& call)
            : message(call),
              member(encodeName(call.methodName())),
              plan(WirePlan::make(call.arguments())),
              unread(Message::failure(SDBusUnread)) {}

        const Message& message;
        const std::optional<std::string> member;
        const std::optional<WirePlan> plan;
        uint64_t cookie = 0;                   // that it was sent under
        std::shared_ptr<SDBusMessage> unread;  // the answer that takes no memory any more
        std::shared_ptr<SDBusMessage> answer;
    };

    bool isSettled() const {
        return std::all_of(mCalls.begin(), mCalls.end(), [](const Call& call) { return call.answer != nullptr; });
    }

    void settleUnread() noexcept {
        for (Call& call : mCalls)
            if (!call.answer) call.answer = std::move(call.unread);
    }

    // What has no answer gets none any more.
    void settle(SDBusErrorType error) {
        for (Call& call : mCalls)
            if (!call.answer) call.answer = Message::failure(error);
    }

    Answers answers() {
        for (Call& call : mCalls) mAnswers.push_back(std::move(call.answer));
        return std::move(mAnswers);
    }

    ConnectionPtr takeReady() {
        while (ConnectionPtr idle = Pool::take(mPath)) {
            if (idle->finishHandshake(mDeadline) == Progress::Done) return idle;
        }
        return nullptr;
    }

    // Settles all calls; none where the connection was dead before anything was sent.
    void runOver(ConnectionPtr& connection) {
        std::size_t sent = 0;
        const bool whole = sendAll(*connection, sent);
        if (!whole && sent == 0) return;
        // Without its answers the connection is of no use: one might come during a later call.
        const Progress progress = whole ? awaitAll(*connection) : Progress::Lost;
        if (progress == Progress::Done)
            contained("keeping a connection", [&] { Pool::give(mPath, std::move(connection)); });
        if (progress == Progress::NoMemory) return settleUnread();
        try {
            settle(progress == Progress::Timeout ? SDBusTimeout : SDBusPeerLost);
        } catch (const std::bad_alloc&) {
            settleUnread();
        }
    }

    // False when the connection was lost over it.
    bool sendAll(ClientConnection& connection, std::size_t& sent) {
        for (Call& call : mCalls) {
            if (call.answer) continue;
            const BusMessagePtr message = connection.makeCall(wire::kInterface, *call.member);
            if (!message || !call.plan->append(message.get(), call.message.arguments())) {
                call.answer = notSent("sd-bus refused it");
                continue;
            }
            if (!connection.send(message.get(), call.cookie)) return false;
            ++sent;
        }
        return true;
    }

    // In whatever order the answers come.
    Progress awaitAll(ClientConnection& connection) try {
        while (!isSettled()) {
            BusMessagePtr message;
            const Progress progress = connection.receive(mDeadline, message);
            if (progress != Progress::Done) return progress;
            if (message && !take(message.get())) return Progress::Lost;
            // A flood of other messages must not hold us.
            if (!isSettled() && mDeadline.hasPassed()) return Progress::Timeout;
        }
        return Progress::Done;
    } catch (const std::bad_alloc&) {
        return Progress::NoMemory;
    }

    // Passes over what answers none of the calls. False for an answer that can't be read.
    bool take(sd_bus_message* message) {
        uint64_t cookie = 0;
        if (sd_bus_message_get_reply_cookie(message, &cookie) < 0) return true;
        const auto call = std::find_if(mCalls.begin(), mCalls.end(),
                                       [cookie](const Call& sent) { return !sent.answer && sent.cookie == cookie; });
        if (call == mCalls.end()) return true;
        call->answer = decodeAnswer(message);
        return call->answer != nullptr;
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
    const Deadline mDeadline;
    std::vector<Call> mCalls;
    Answers mAnswers;
};

}  // namespace

Answers callService(const RuntimeFolder& place, const std::string& service, const std::vector<const Message*>& calls,
                    std::chrono::milliseconds limit) {
    return Exchange(place, service, calls, limit).run();
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
