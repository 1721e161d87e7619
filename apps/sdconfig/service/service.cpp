#include "apps/sdconfig/service/service.h"

#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "apps/common/process.h"
#include "apps/common/smallest_call.h"
#include "libsdconfig/hear_events.h"
#include "platform/sdbus/sdbus.h"
#include "platform/velmarlog/log_secret.h"
#include "src/sdconfig_protocol.h"

namespace cli {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// As long as the facade itself would wait for a service to appear.
constexpr auto kStartGrace = 1000ms;
constexpr auto kStartPoll = 50ms;

// Of what is answered from memory.
constexpr int kKnownTimeoutMs = 500;

constexpr int kAllLines = 5;
constexpr int kWarningLines = 6;
constexpr int kErrorLines = 7;

constexpr char kBusTag[] = "sdbus";

// Of the smallest call: one string.
bool isAnswer(const SDBusMessage& reply) {
    return reply.type() == sd::protocol::kMethodReply && reply.signature() == "s";
}

// Whether its arguments begin with such of these kinds.
bool isAnswerOf(const SDBusMessage& reply, const std::string& kinds) {
    return reply.signature().compare(0, kinds.size(), kinds) == 0;
}

Problem howItFailed(const SDBusMessage& reply) {
    if (reply.type() == sd::protocol::kMethodReply)
        return {"answers in a way that this version can't read",
                "install both from one package, and " + howToRestart()};
    switch (reply.getErrorType()) {
        case SDBusTimeout:
            return {"did not answer within 5 s", howToRestart()};
        case SDBusPeerLost:
            return {"went away before it answered", howToRestart()};
        case SDBusUnreachable:
            return {"ends each connection before a call can be made: it is overrun, or something else listens there",
                    "end what else listens there, and " + howToRestart()};
        default:
            return {"did not give an answer that makes sense", howToRestart()};
    }
}

// The start-up tasks' calls fail with lines of the same kind, for keys of their own: so the argument counts. Its start
// will do, up to what a log may show in another way.
std::string plainStart(const std::string& argument) {
    constexpr std::size_t kEnough = 100;
    const auto plain = [](char c) { return c >= ' ' && c <= '~'; };
    const auto end = std::find_if_not(argument.begin(), argument.end(), plain);
    return std::string(argument.begin(), end).substr(0, kEnough);
}

}  // namespace

// Takes the library's log lines: shows them on standard error when asked to, and notes a line that tells that the call
// in hand got no answer, or one that can't be read.
class LogWatch {
public:
    explicit LogWatch(bool show) : mShow(show) {}

    void expect(std::string failureText) {
        const std::lock_guard lock(mMutex);
        mFailureText = std::move(failureText);
        mFailed = false;
        mUnreadable = false;
    }

    bool failed() const {
        const std::lock_guard lock(mMutex);
        return mFailed;
    }

    bool unreadable() const {
        const std::lock_guard lock(mMutex);
        return mUnreadable;
    }

    void take(int level, const std::string& tag, const std::string& line) {
        if (mShow) print(level, tag, line);
        const std::lock_guard lock(mMutex);
        if (level == kErrorLines && tag == sd::protocol::kServiceName && tellsFailure(line)) mFailed = true;
        if (level == kWarningLines && tag == kBusTag && tellsOtherKind(line)) mUnreadable = true;
    }

private:
    static void print(int level, const std::string& tag, const std::string& line) {
        const std::string text = std::to_string(level) + " " + tag + ": " + escaped(line) + "\n";
        (void)!::write(STDERR_FILENO, text.data(), text.size());
    }

    bool tellsFailure(const std::string& line) const {
        const auto holds = [&line](const std::string& text) { return line.find(text) != std::string::npos; };
        return holds("no sdconfig client!!!") || (holds("error reply: type=") && holds(mFailureText));
    }

    // The bus layer reads an argument of another kind than was asked for as nothing, and says so.
    static bool tellsOtherKind(const std::string& line) {
        return line.find("argument ") != std::string::npos && line.find(", not ") != std::string::npos;
    }

    const bool mShow;
    mutable std::mutex mMutex;
    std::string mFailureText;
    bool mFailed = false;
    bool mUnreadable = false;
};

Service::Service(const Request& request) : mRequest(request), mLog(std::make_shared<LogWatch>(request.verbose)) {
    velmarLogSetLevel(request.verbose ? kAllLines : kWarningLines);
    if (velmarLogSetSecretsShown) velmarLogSetSecretsShown(false);  // what is shown ends in the logs of scripts
    velmarLogSetSink(
        [log = mLog](int level, const char* tag, const std::string& line) { log->take(level, tag, line); });
    mBus = SDBusSerivceManager::initSync(-1);
}

// The sink stays: what the library logs at exit is no chatter for the terminal either.
Service::~Service() = default;

Probe Service::probe() const {
    Probe first = probeOnce();  // connects as well
    return first.answered ? probeOnce() : first;
}

Probe Service::probeOnce() const {
    Probe probe;
    if (!listening()) return probe;
    const auto proxy = mBus->getServiceProxyInterface(sd::protocol::kServiceName, SDBusSameUser, 1);
    const auto began = Clock::now();
    const auto reply = apps::smallestCall(*proxy, sd::protocol::kCallTimeoutMs);
    probe.roundTrip = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - began);
    probe.answered = isAnswer(*reply);
    probe.listening = reply->getErrorType() != SDBusUnreachable || listening();
    if (!probe.answered) probe.how = howItFailed(*reply);
    return probe;
}

// The facade's first call runs the client's start-up tasks, up to 16 calls of 5 s each where the service listens but
// does not answer. One call made before it keeps a hung service from holding up the user for more than those 5 s.
int Service::require() {
    const Probe found = appears() ? probeOnce() : Probe{};
    if (!found.listening) return notRunning(attempt(mRequest), socketPath(), lookedAt());
    if (!found.answered) return noAnswer(attempt(mRequest), found.how, socketPath());
    return kDone;
}

bool Service::appears() const {
    const auto limit = Clock::now() + kStartGrace;
    while (!listening()) {
        if (Clock::now() >= limit) return false;
        std::this_thread::sleep_for(kStartPoll);
    }
    return true;
}

std::string Service::failureWords(const std::string& name, const std::string& argument) {
    return name + " : " + plainStart(argument);
}

std::string Service::wordsOfText(const std::string& name, const std::string& text) {
    return failureWords(name, velmarlog::Secret(text).text());
}

void Service::beginCall(const std::string& words) {
    mLog->expect(words);
}

int Service::endCall(bool failureValue) {
    if (mLog->unreadable()) return answerUnreadable(attempt(mRequest));
    if (!failureValue || !mLog->failed()) return kDone;
    const Probe after = probe();
    if (!after.listening) return notRunning(attempt(mRequest), socketPath(), lookedAt());
    if (!after.answered) return noAnswer(attempt(mRequest), after.how, socketPath());
    // That is also how it tells that a deletion of a secure value failed.
    return mRequest.command == "secure delete" ? secureWriteRefused(mRequest) : callUnanswered(mRequest);
}

int Service::requireCount(const char* method) const {
    int exitCode = kDone;
    (void)ask(
        method, [](SDBusMessage&) {}, "y", exitCode);
    return exitCode;
}

const int Service::kUsualTimeoutMs = sd::protocol::kCallTimeoutMs;

std::shared_ptr<SDBusMessage> Service::replyTo(const char* method, const std::function<void(SDBusMessage&)>& arguments,
                                               int timeoutMs) const {
    const auto proxy = mBus->getServiceProxyInterface(sd::protocol::kServiceName, SDBusSameUser, 1);
    auto call = proxy->makeMethodCallMessage(method);
    arguments(*call);
    return proxy->callWithReplyBlocking(std::move(call), timeoutMs);
}

std::shared_ptr<SDBusMessage> Service::tryToAsk(const char* method, const std::function<void(SDBusMessage&)>& arguments,
                                                const std::string& kinds, int timeoutMs) const {
    auto reply = replyTo(method, arguments, timeoutMs);
    return isAnswerOf(*reply, kinds) ? reply : nullptr;
}

std::shared_ptr<SDBusMessage> Service::tryToAskKnown(const char* method,
                                                     const std::function<void(SDBusMessage&)>& arguments,
                                                     const std::string& kinds) const {
    auto reply = replyTo(method, arguments, kKnownTimeoutMs);
    // One that was busy is not taken for an earlier one: it answers another call once it is through, and then this one.
    if (reply->getErrorType() == SDBusTimeout && probeOnce().answered)
        reply = replyTo(method, arguments, kKnownTimeoutMs);
    return isAnswerOf(*reply, kinds) ? reply : nullptr;
}

std::shared_ptr<SDBusMessage> Service::ask(const char* method, const std::function<void(SDBusMessage&)>& arguments,
                                           const std::string& kinds, int& exitCode, int timeoutMs) const {
    auto reply = replyTo(method, arguments, timeoutMs);
    exitCode = kDone;
    if (isAnswerOf(*reply, kinds)) return reply;
    exitCode = reply->type() == sd::protocol::kMethodReply
                   ? answerUnreadable(attempt(mRequest))
                   : noAnswer(attempt(mRequest), howItFailed(*reply), socketPath());
    return nullptr;
}

bool Service::isUnopenable(const std::string& key) const {
    const auto proxy = mBus->getServiceProxyInterface(sd::protocol::kServiceName, SDBusSameUser, 1);
    auto call = proxy->makeMethodCallMessage(sd::protocol::kGetSecure);
    call->appendString(key);
    const auto reply = proxy->callWithReplyBlocking(std::move(call), sd::protocol::kCallTimeoutMs);
    return reply->signature() == "sb" && reply->getString(0).empty() && reply->getBool(1);
}

bool Service::listening() const {
    return mBus->isServiceRegistered(sd::protocol::kServiceName);
}

int Service::processId() const {
    return mBus->serviceProcess(sd::protocol::kServiceName);
}

std::string Service::productFolder() const {
    return apps::pathOption(processId(), "--product-dir");
}

std::string Service::socketPath() const {
    return mBus->socketPath(sd::protocol::kServiceName);
}

std::string Service::lookedAt() const {
    return mBus->lookedAt(sd::protocol::kServiceName);
}

void Service::listen(const std::string& event, std::function<void(const std::string&)> hear) {
    if (!mEvents) mEvents = mBus->getServiceProxyInterface(sd::protocol::kServiceName, SDBusSameUser, 1);
    // Where it is not in force yet, the bus layer goes on trying.
    const auto heard = sd::hearEvents(*mEvents, event,
                                      [hear = std::move(hear)](SDBusMessage& message) { hear(message.getString(0)); });
    if (heard.expired()) throw std::runtime_error("there is no thread or descriptor for the service's events");
}

}  // namespace cli
