// The process's one connection to the configuration service, behind both facades. Not for users of the library, but for
// sServiceName.
#pragma once

#include <chrono>
#include <cstddef>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/sdconfig_export.h"
#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"
#include "platform/sdbus/sdbus.h"

namespace sd {

class ListenerMap;

// Any thread. The requests log one level-7 line and return their failure value when there is no proper answer.
class SDConfigClient {
public:
    // Waits up to about a second for the service to appear; the first call that finds it connects and runs the start-up
    // tasks. Threads that call meanwhile wait with it and get what it gets. Null when there is no service, or when it
    // stops answering: the next call tries again, and goes on with the start-up where it was left.
    //
    // A forked child makes a client of its own, without the listeners of its parent's.
    static std::shared_ptr<SDConfigClient> GetInstance();

    ~SDConfigClient();
    SDConfigClient(const SDConfigClient&) = delete;
    SDConfigClient& operator=(const SDConfigClient&) = delete;

    std::string GetProperty(const std::string& key);
    SDConfig::Reading ReadProperty(const std::string& key, std::string& value);
    bool SetProperty(const std::string& key, const std::string& value);
    bool DeleteProperty(const std::string& key);
    bool GetAllProperties(std::map<std::string, std::string>& properties);
    bool SetSecure(const std::string& key, const std::string& value);
    std::string GetSecure(const std::string& key);
    SDConfig::Reading ReadSecure(const std::string& key, std::string& value);
    bool DeleteSecure(const std::string& key);
    std::string GetConst(const std::string& key);
    std::string SignRequest(const std::string& content);
    bool VerifyRequest(const std::string& content, const std::string& sign);

    bool IsAllConfigsAlreadyListened(const std::vector<std::string>& keys);
    bool SetPolicyList(const PolicyList& policies);
    bool RegisterListener(const std::string& key, DMConfig::Listener* listener, bool flag);
    bool UnRegisterListener(const std::string& key, DMConfig::Listener* listener, bool flag);
    bool RegisterListenersWithList(const DMConfig::ListenerList& listeners, bool flag);
    bool SetPolicyWithUri(const std::string& uri, const std::string& value, int priority);
    PolicyMap GetPolicyWithUri(const std::string& uri);
    bool GetPoliciesWithUris(const std::vector<std::string>& uris, PolicyList& policies);
    bool DeletePolicyWithUri(const std::string& uri);
    bool isStrongControl(const std::string& key);
    bool GetAllKeys(PolicyList& policies);
    bool ClearAllKeys();

    // The name of the service to reach; null until the first call sets it to "sdconfig". A process that wants another
    // service sets it before that.
    SDCONFIG_API static const char* sServiceName;

private:
    class Process;
    using Clock = std::chrono::steady_clock;

    // An answer, or what came in its place.
    class Answer {
    public:
        explicit Answer(std::shared_ptr<SDBusMessage> message) : mMessage(std::move(message)) {}
        bool ok() const;
        bool hasCome() const;  // false when the service said nothing
        int type() const { return mMessage ? mMessage->type() : 0; }
        int errorType() const { return mMessage ? mMessage->getErrorType() : 0; }
        SDBusMessage* operator->() const { return mMessage.get(); }
        SDBusMessage& operator*() const { return *mMessage; }

    private:
        std::shared_ptr<SDBusMessage> mMessage;
    };

    SDConfigClient();
    static bool awaitService();
    static bool connect(std::shared_ptr<SDConfigClient>& client);
    bool init();
    std::shared_ptr<SDBusMessage> makeCall(const char* method) const;
    Answer send(const std::shared_ptr<SDBusMessage>& call);
    Answer sendWithin(const std::shared_ptr<SDBusMessage>& call, Clock::time_point begun);
    Answer request(const char* method, std::initializer_list<std::string> strings);
    static int millisecondsLeft(Clock::time_point begun);

    // Events come from the first registration on: the subscription is in force before the service knows of it. Throws
    // where there can be none for now; the next registration tries again.
    void subscribe();
    Answer sendRegistration(const std::shared_ptr<SDBusMessage>& call);
    bool unregister(const std::string& key, DMConfig::Listener* listener, bool flag);
    Answer sendUnregistration(const std::string& key, bool flag);
    // Tells the service of what it counts too often.
    void takeBackOvercounted() noexcept;

    // Start-up tasks: every process runs them, so they may run any number of times. They end early when the service
    // stops answering: the key in hand is left alone, and the others to the next start-up of this client.
    static constexpr char kOldLockscreenKey[] = "ro.sd.user.lockscreen.data";
    bool startUp(Clock::time_point begun);
    void printProductInfo();
    void dataMigrate(const std::string& key);
    void wpowerConfigInit();
    std::optional<std::string> readAtStartUp(const std::string& key, const char* task);

    // Sends what the tasks will request next, none of which depends on another's answer, without a wait in between.
    // request() then gives the answers; one that the tasks don't get to is forgotten.
    using Request = std::pair<std::string, std::vector<std::string>>;  // the method and its strings
    void askAhead(const std::vector<Request>& requests);
    std::optional<Answer> takeAhead(const Request& request);
    void readPowerAhead();

    // Of the start-up, which one thread does before any other has the client.
    bool mStarted = false;
    bool mAnswers = true;  // whether the service answered the last request
    Clock::time_point mHeardOf;
    std::map<Request, Answer> mAhead;
    bool mMigrated = false;
    std::size_t mPowerChecked = 0;  // how many of the power defaults

    std::mutex mSubscribing;
    std::weak_ptr<void> mSubscription;  // of hearEvents(); guarded by mSubscribing
    std::mutex mRegistering;            // one listener registered or unregistered at a time, the call included
    const std::shared_ptr<ListenerMap> mListenerMap;  // shared with the event callback, which may outlive the client
    std::shared_ptr<SDBusProxyInterface> mProxy;
};

}  // namespace sd
