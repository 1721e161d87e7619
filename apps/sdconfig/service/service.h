// The service as the commands see it: whether it is there, and whether a call of the facade was answered.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "apps/sdconfig/request/request.h"
#include "apps/sdconfig/terminal/messages.h"

class SDBusMessage;
class SDBusProxyInterface;
class SDBusSerivceManager;

namespace cli {

class LogWatch;

// One call straight over the bus, without the facade.
struct Probe {
    bool listening = false;  // somebody listens under the service's name
    bool answered = false;
    Problem how;  // where it did not answer: what it did instead
    std::chrono::microseconds roundTrip{};
};

template <class Result>
struct Answer {
    Result result;
    int exitCode;  // kDone where the service answered; else the failure was told
};

class Service {
public:
    explicit Service(const Request& request);
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // Makes one call and times a second one. Doesn't wait for a service that isn't there.
    Probe probe() const;

    // The exit code kDone where the service is there and answers; else kNoService, after telling so.
    // A service that is just starting is waited for, for a second.
    int require();

    // Runs `operation`, a call of the facade whose log line says "NAME : ARGUMENT failed" where it got no answer.
    // The facade gives the same "" or false for that and for a refusal; only the line tells them apart.
    template <class Operation>
    auto call(const std::string& name, const std::string& argument, Operation operation)
        -> Answer<decltype(operation())> {
        return call(failureWords(name, argument), operation);
    }

    // The same for an operation whose line holds `words` instead.
    template <class Operation>
    auto call(const std::string& words, Operation operation) -> Answer<decltype(operation())> {
        beginCall(words);
        auto result = operation();
        const bool failureValue = result == decltype(result){};
        return {std::move(result), endCall(failureValue)};
    }

    // The `words` of an operation whose argument is a text that log lines hide.
    static std::string wordsOfText(const std::string& name, const std::string& text);

    // The exit code kDone where the answer to the method, which takes no arguments, begins with a count; else
    // kNoService, after telling so. For a list that read as empty: a list without a count reads so, too.
    int requireCount(const char* method) const;

    // One call straight over the bus. arguments: appends them. Returns the answer, whose arguments are of these kinds
    // and perhaps more behind them (SDBusMessage::signature); null, with the exit code and after telling so, where
    // there is none.
    std::shared_ptr<SDBusMessage> ask(const char* method, const std::function<void(SDBusMessage&)>& arguments,
                                      const std::string& kinds, int& exitCode, int timeoutMs = kUsualTimeoutMs) const;

    // The same without a word where there is no such answer.
    std::shared_ptr<SDBusMessage> tryToAsk(const char* method, const std::function<void(SDBusMessage&)>& arguments,
                                           const std::string& kinds, int timeoutMs = kUsualTimeoutMs) const;

    // The same of what the service answers from its memory, and a service of an earlier version, which leaves calls
    // that it doesn't know unanswered, not at all: it is waited for a second at most while it answers other calls.
    std::shared_ptr<SDBusMessage> tryToAskKnown(const char* method, const std::function<void(SDBusMessage&)>& arguments,
                                                const std::string& kinds) const;

    // Of a secure value that reads as "": whether it does because what is stored of it can't be opened.
    bool isUnopenable(const std::string& key) const;

    // Whether somebody listens, without waiting or a word.
    bool listening() const;

    int processId() const;              // 0: unknown
    std::string productFolder() const;  // the --product-dir that it was started with; "": none, or it can't be told
    std::string socketPath() const;
    std::string lookedAt() const;  // where it was looked for, for a person

    // Has `hear` called, on a thread of the bus, with the first text of each event of the name, to the end of this
    // object.
    void listen(const std::string& event, std::function<void(const std::string&)> hear);

private:
    static const int kUsualTimeoutMs;
    std::shared_ptr<SDBusMessage> replyTo(const char* method, const std::function<void(SDBusMessage&)>& arguments,
                                          int timeoutMs) const;
    static std::string failureWords(const std::string& name, const std::string& argument);
    void beginCall(const std::string& words);
    int endCall(bool failureValue);
    bool appears() const;
    Probe probeOnce() const;

    const Request& mRequest;
    std::shared_ptr<LogWatch> mLog;
    SDBusSerivceManager* mBus = nullptr;
    std::shared_ptr<SDBusProxyInterface> mEvents;
};

}  // namespace cli
