// The client's connection: found, made and kept once a process, and the events that come over it.
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <utility>

#include "libsdconfig/hear_events.h"
#include "libsdconfig/listener_map.h"
#include "libsdconfig/sdconfig_client.h"
#include "platform/velmarlog/log_line.h"
#include "src/sdconfig_protocol.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "sdconfig_sdbus";
constexpr char kGetInstance[] = "GetInstance";  // in whose name its helpers log

constexpr int kServiceChecks = 11;
constexpr int kLeastTimeoutMs = 500;  // for a call after this process itself stood still
constexpr std::chrono::milliseconds kServiceCheckPause{100};
constexpr std::chrono::milliseconds kConnectPause{10};

}  // namespace

const char* SDConfigClient::sServiceName = nullptr;

// What a process has of the client. A forked child begins with one of its own, like any other process: in its parent
// another thread may have been in the middle of a call, which nobody brings to its end in the child. Taking that
// thread's locks before a fork would hold the fork up for as long as the service takes.
// Never destroyed, since threads go on calling while the process exits.
class SDConfigClient::Process {
public:
    explicit Process(Process* parents = nullptr) : mParents(parents) {}

    static Process& current();

    std::shared_ptr<SDConfigClient> get();
    void end();

private:
    // One thread connects, without the guard. Those that come meanwhile share what comes of it.
    class Attempt {
    public:
        Attempt(Process& process, std::unique_lock<std::mutex>& lock) : mProcess(process), mLock(lock) {
            mProcess.mConnecting = std::this_thread::get_id();
            mLock.unlock();
        }
        ~Attempt() {
            mLock.lock();
            mProcess.mConnecting = std::thread::id();
            ++mProcess.mAttempts;
            mProcess.mAttemptEnded.notify_all();
        }
        Attempt(const Attempt&) = delete;
        Attempt& operator=(const Attempt&) = delete;

    private:
        Process& mProcess;
        std::unique_lock<std::mutex>& mLock;
    };

    std::mutex mGuard;  // held for moments, and over fork()
    std::condition_variable mAttemptEnded;
    std::thread::id mConnecting;  // guarded by mGuard, as what follows
    unsigned long mAttempts = 0;  // that have ended
    std::shared_ptr<SDConfigClient> mClient;
    bool mReady = false;  // the client's start-up is done
    bool mEndsAtExit = false;
    bool mEnded = false;
    Process* const mParents [[maybe_unused]];  // what a child leaves alone stays reachable

    // Null until it is first needed. A child may have no memory for one when it begins, and could tell nobody.
    static std::atomic<Process*> sCurrent;
    static Process* sHeld;  // over a fork(), by the thread that forks
    static Process* sParents;
    static const int sHandlesForks;
};

std::atomic<SDConfigClient::Process*> SDConfigClient::Process::sCurrent{nullptr};
SDConfigClient::Process* SDConfigClient::Process::sHeld = nullptr;
SDConfigClient::Process* SDConfigClient::Process::sParents = nullptr;

const int SDConfigClient::Process::sHandlesForks [[maybe_unused]] = [] {
    const auto hold = [] {
        sHeld = sCurrent;
        if (sHeld) sHeld->mGuard.lock();
    };
    const auto release = [] {
        if (sHeld) sHeld->mGuard.unlock();
    };
    const auto beginAnew = [] {
        if (sHeld) sHeld->mGuard.unlock();
        sParents = sCurrent.exchange(nullptr);
    };
    return ::pthread_atfork(hold, release, beginAnew);
}();

SDConfigClient::Process& SDConfigClient::Process::current() {
    if (Process* const there = sCurrent) return *there;
    auto made = std::make_unique<Process>(sParents);
    Process* there = nullptr;
    return sCurrent.compare_exchange_strong(there, made.get()) ? *made.release() : *there;
}

std::shared_ptr<SDConfigClient> SDConfigClient::GetInstance() {
    return Process::current().get();
}

std::shared_ptr<SDConfigClient> SDConfigClient::Process::get() {
    std::shared_ptr<SDConfigClient> client;  // outlives the lock: to destroy it takes a while
    std::unique_lock lock(mGuard);
    if (mReady || mEnded) return mReady ? mClient : nullptr;
    if (mConnecting == std::this_thread::get_id()) return nullptr;  // a log sink that calls from inside
    if (mConnecting != std::thread::id()) {
        mAttemptEnded.wait(lock, [this, before = mAttempts] { return mAttempts != before; });
        return mReady ? mClient : nullptr;
    }
    // Before the objects are destroyed that are there now, as a static object of this function would.
    if (!mEndsAtExit)
        mEndsAtExit = std::atexit([] {
                          if (Process* const there = sCurrent) there->end();
                      }) == 0;
    client = mClient;
    bool ready = false;
    {
        const Attempt attempt(*this, lock);
        ready = awaitService() && connect(client);
    }
    if (mEnded) return nullptr;
    mClient = client;
    mReady = ready;
    lock.unlock();
    if (!ready) return nullptr;
    LOG(5, AT "SDConfigClient initialized successfully %p", kSource, kGetInstance, 261,
        static_cast<void*>(client.get()));
    return client;
}

// At exit(): who calls a facade after this finds no client.
void SDConfigClient::Process::end() {
    std::shared_ptr<SDConfigClient> client;
    {
        const std::lock_guard lock(mGuard);
        if (std::exchange(mEnded, true)) return;
        mReady = false;
        client = mClient;
    }
    // With a listener that doesn't come to its end the client stays, as its destructor would wait for that.
    if (!client || !client->mListenerMap->close()) return;
    const std::lock_guard lock(mGuard);
    mClient.reset();
}

bool SDConfigClient::awaitService() {
    if (!sServiceName) {
        sServiceName = protocol::kServiceName;
        LOG(5, AT "sdconfig service name %s", kSource, kGetInstance, 239, sServiceName);
    }
    SDBusSerivceManager* manager = SDBusSerivceManager::initSync(-1);
    for (int check = 1; check <= kServiceChecks; ++check) {
        if (manager->isServiceRegistered(sServiceName)) break;
        if (check == kServiceChecks) break;
        LOG(5, AT "service %s not ready, waiting...", kSource, kGetInstance, 247, sServiceName);
        std::this_thread::sleep_for(kServiceCheckPause);
    }
    if (manager->isServiceRegistered(sServiceName)) return true;
    LOG(7, AT "service %s failed to register after timeout", kSource, kGetInstance, 253, sServiceName);
    return false;
}

// Makes the client unless that is done, and does what is left of its start-up.
bool SDConfigClient::connect(std::shared_ptr<SDConfigClient>& client) {
    const auto begun = Clock::now();
    if (!client) client.reset(new SDConfigClient);
    return client->startUp(begun);
}

SDConfigClient::SDConfigClient() : mListenerMap(std::make_shared<ListenerMap>()) {
    LOG(5, AT "SDConfigClient instance SDBUS intf %p", HERE_AT(268), static_cast<void*>(this));
    while (!init()) std::this_thread::sleep_for(kConnectPause);
}

SDConfigClient::~SDConfigClient() = default;

bool SDConfigClient::init() {
    mProxy = SDBusSerivceManager::initSync(-1)->getServiceProxyInterface(sServiceName, SDBusSameUser, 1);
    if (!mProxy) {
        LOG(7, AT "initSync error", HERE_AT(287));
        return false;
    }
    return true;
}

// A connection and a thread of their own, which a client without listeners does without.
void SDConfigClient::subscribe() {
    const std::lock_guard lock(mSubscribing);
    if (!mSubscription.expired()) return;
    mSubscription = hearEvents(*mProxy, protocol::kDmChanged,
                               [listeners = mListenerMap](SDBusMessage& event) { listeners->onEvent(event); });
    if (mSubscription.expired()) throw std::runtime_error("no events can be heard now");
}

std::shared_ptr<SDBusMessage> SDConfigClient::makeCall(const char* method) const {
    return mProxy->makeMethodCallMessage(method);
}

SDConfigClient::Answer SDConfigClient::send(const std::shared_ptr<SDBusMessage>& call) {
    if (mStarted) return Answer(mProxy->callWithReplyBlocking(call, protocol::kCallTimeoutMs));
    Answer answer = sendWithin(call, mHeardOf);
    mAnswers = answer.hasCome();
    mHeardOf = Clock::now();
    return answer;
}

SDConfigClient::Answer SDConfigClient::sendWithin(const std::shared_ptr<SDBusMessage>& call, Clock::time_point begun) {
    return Answer(mProxy->callWithReplyBlocking(call, millisecondsLeft(begun)));
}

// What was waited before counts: a service that hangs costs no call more than any other.
int SDConfigClient::millisecondsLeft(Clock::time_point begun) {
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begun);
    return static_cast<int>(std::max<long>(protocol::kCallTimeoutMs - waited.count(), kLeastTimeoutMs));
}

SDConfigClient::Answer SDConfigClient::sendRegistration(const std::shared_ptr<SDBusMessage>& call) {
    const auto begun = Clock::now();
    takeBackOvercounted();
    subscribe();
    return sendWithin(call, begun);
}

SDConfigClient::Answer SDConfigClient::request(const char* method, std::initializer_list<std::string> strings) {
    if (!mStarted)
        if (const auto answer = takeAhead({method, strings})) return *answer;
    const auto call = makeCall(method);
    for (const std::string& argument : strings) call->appendString(argument);
    return send(call);
}

// Without the operation, which a bus library of version 1.0.0 lacks, each request goes when it is made.
void SDConfigClient::askAhead(const std::vector<Request>& requests) {
    auto callTogether = &SDBusProxyInterface::callsWithRepliesBlocking;
    if (!callTogether) return;
    std::vector<std::shared_ptr<SDBusMessage>> calls;
    for (const auto& [method, strings] : requests) {
        calls.push_back(makeCall(method.c_str()));
        for (const std::string& argument : strings) calls.back()->appendString(argument);
    }
    const auto answers = ((*mProxy).*callTogether)(calls, millisecondsLeft(mHeardOf));
    bool allCame = true;
    for (std::size_t i = 0; i < requests.size(); ++i) {
        const Answer answer(answers[i]);
        allCame = allCame && answer.hasCome();
        mAhead.emplace(requests[i], answer);
    }
    if (allCame) mHeardOf = Clock::now();  // else what was waited counts for what is sent next
}

std::optional<SDConfigClient::Answer> SDConfigClient::takeAhead(const Request& request) {
    const auto ahead = mAhead.extract(request);
    if (ahead.empty()) return std::nullopt;
    mAnswers = ahead.mapped().hasCome();
    return ahead.mapped();
}

bool SDConfigClient::Answer::ok() const {
    return type() == protocol::kMethodReply;
}

bool SDConfigClient::Answer::hasCome() const {
    const int error = errorType();
    return error != SDBusTimeout && error != SDBusUnreachable && error != SDBusPeerLost && error != SDBusUnread;
}

}  // namespace sd
