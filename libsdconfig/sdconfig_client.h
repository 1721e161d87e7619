// The process's one connection to the configuration service, behind both facades. Not for users of the library, but for
// sServiceName.
#pragma once

#include <atomic>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig_export.h"
#include "platform/sdbus/sdbus.h"

namespace sd {

class ListenerMap;

// Any thread. The requests log one level-7 line and return their failure value when there is no proper answer.
class SDConfigClient {
public:
    // Waits up to about a second for the service to appear; the first call that finds it connects and runs the start-up
    // tasks, while other threads wait. Null when there is no service: the next call tries again.
    static std::shared_ptr<SDConfigClient> GetInstance();

    ~SDConfigClient();
    SDConfigClient(const SDConfigClient&) = delete;
    SDConfigClient& operator=(const SDConfigClient&) = delete;

    std::string GetProperty(const std::string& key);
    bool SetProperty(const std::string& key, const std::string& value);
    bool DeleteProperty(const std::string& key);
    bool GetAllProperties(std::map<std::string, std::string>& properties);
    bool SetSecure(const std::string& key, const std::string& value);
    std::string GetSecure(const std::string& key);
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
    struct Instance;
    static std::atomic<bool> sInitialized;  // the instance holds a connected client
    static std::atomic<bool> sDestroyed;    // the instance went with the process's other statics

    // An answer, or what came in its place.
    class Answer {
    public:
        explicit Answer(std::shared_ptr<SDBusMessage> message) : mMessage(std::move(message)) {}
        bool ok() const;
        int type() const { return mMessage ? mMessage->type() : 0; }
        int errorType() const { return mMessage ? mMessage->getErrorType() : 0; }
        SDBusMessage* operator->() const { return mMessage.get(); }
        SDBusMessage& operator*() const { return *mMessage; }

    private:
        std::shared_ptr<SDBusMessage> mMessage;
    };

    SDConfigClient();
    bool init();
    std::shared_ptr<SDBusMessage> makeCall(const char* method) const;
    Answer send(const std::shared_ptr<SDBusMessage>& call) const;
    Answer request(const char* method, std::initializer_list<std::string> strings) const;

    bool unregister(const std::string& key, DMConfig::Listener* listener, bool flag);

    // Start-up tasks: every process runs them, so they may run any number of times.
    static constexpr char kOldLockscreenKey[] = "ro.sd.user.lockscreen.data";
    void printProductInfo();
    void dataMigrate(const std::string& key);
    void wpowerConfigInit();

    static std::mutex sLock;    // making the client
    static std::mutex sDMLock;  // registering and unregistering one listener, their calls included

    const std::shared_ptr<ListenerMap> mListenerMap;  // shared with the event callback, which may outlive the client
    std::shared_ptr<SDBusProxyInterface> mProxy;
};

}  // namespace sd
