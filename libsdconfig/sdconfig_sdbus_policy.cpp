// The device-management facade, the requests behind it, and the client's listeners.
#include <cstdint>
#include <new>
#include <utility>

#include "base/limits.h"
#include "libsdconfig/dmconfig.h"
#include "libsdconfig/listener_map.h"
#include "libsdconfig/sdconfig_client.h"
#include "libsdconfig/with_client.h"
#include "platform/velmarlog/log_line.h"
#include "platform/velmarlog/log_secret.h"
#include "src/sdconfig_protocol.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "sdconfig_sdbus";

// Counts and priorities have always travelled so: what doesn't fit wraps.
int8_t narrowed(size_t count) {
    return static_cast<int8_t>(count);
}
int8_t narrowed(int priority) {
    return static_cast<int8_t>(priority);
}

void appendKeys(SDBusMessage& call, const std::vector<std::string>& keys) {
    call.appendInt8(narrowed(keys.size()));
    for (const std::string& key : keys) call.appendString(key);
}

PolicyMap readPolicy(SDBusMessage& reply, int valueIndex) {
    const std::string value = reply.getString(valueIndex);
    return {{value.empty() ? kNullValue : value, reply.getInt(valueIndex + 1)}};
}

// Sets the entries of the URIs that the reply lists.
void readPolicies(SDBusMessage& reply, PolicyList& policies) {
    const int count = reply.getInt(0);
    for (int i = 0; i < count; ++i) {
        const int at = 1 + 3 * i;
        policies[reply.getString(at)] = readPolicy(reply, at + 1);
    }
}

}  // namespace

// ---- Requests ----

bool SDConfigClient::IsAllConfigsAlreadyListened(const std::vector<std::string>& keys) {
    const auto call = makeCall(protocol::kIsAlreadyListened);
    appendKeys(*call, keys);
    const Answer answer = send(call);
    if (answer.ok()) return answer->getBool(0);
    LOG(7, AT "error reply: type=%d, IsAllConfigsAlreadyListened failed", HERE, answer.type());
    return false;
}

bool SDConfigClient::SetPolicyList(const PolicyList& policies) {
    const auto call = makeCall(protocol::kSetPolicyList);
    call->appendInt8(narrowed(policies.size()));
    for (const auto& [uri, policy] : policies) {
        call->appendString(uri);
        for (const auto& [value, priority] : policy) {
            call->appendString(value);
            call->appendInt8(narrowed(priority));
            if (isIdentityKey(uri)) LOG(5, AT "key is %s, value is %s", HERE, uri.c_str(), SECRET(value));
        }
    }
    const Answer answer = send(call);
    if (!answer.ok()) LOG(7, AT "error reply: type=%d, SetPolicyList failed", HERE, answer.type());
    for (const char* identity : {"ro.sd.uuid", "ro.sd.client.id"})
        if (policies.count(identity) != 0)
            LOG(5, AT "%s's latestVal is %s", HERE, identity, SECRET(GetSecure(identity)));
    return answer.ok() && answer->getBool(0);
}

bool SDConfigClient::SetPolicyWithUri(const std::string& uri, const std::string& value, int priority) {
    const auto call = makeCall(protocol::kSetPolicy);
    call->appendString(uri);
    call->appendString(value);
    call->appendInt8(narrowed(priority));
    const Answer answer = send(call);
    if (!answer.ok())
        LOG(7, AT "error reply: type=%d, SetPolicyWithUri key : %s failed", HERE, answer.type(), uri.c_str());
    if (isIdentityKey(uri))
        LOG(5, AT "key is %s, value is %s, latestVal is %s", HERE, uri.c_str(), SECRET(value), SECRET(GetSecure(uri)));
    return answer.ok() && answer->getBool(0);
}

PolicyMap SDConfigClient::GetPolicyWithUri(const std::string& uri) {
    const Answer answer = request(protocol::kGetPolicy, {uri});
    PolicyMap policy;
    if (answer.ok())
        policy = readPolicy(*answer, 0);
    else
        LOG(7, AT "error reply: type=%d, GetPolicyWithUri key : %s failed", HERE, answer.type(), uri.c_str());
    if (isIdentityKey(uri))
        LOG(5, AT "key is %s, value is %s", HERE, uri.c_str(), policy.empty() ? "" : SECRET(policy.begin()->first));
    return policy;
}

bool SDConfigClient::GetPoliciesWithUris(const std::vector<std::string>& uris, PolicyList& policies) {
    const auto call = makeCall(protocol::kGetPolicies);
    appendKeys(*call, uris);
    const Answer answer = send(call);
    if (answer.ok())
        readPolicies(*answer, policies);
    else
        LOG(7, AT "error reply: type=%d, GetPoliciesWithUris failed", HERE, answer.type());
    return answer.ok();
}

bool SDConfigClient::DeletePolicyWithUri(const std::string& uri) {
    const Answer answer = request(protocol::kDeletePolicy, {uri});
    if (!answer.ok())
        LOG(7, AT "error reply: type=%d, DeletePolicyWithUri key : %s failed", HERE, answer.type(), uri.c_str());
    if (isIdentityKey(uri)) LOG(5, AT "key is %s, latestVal is %s", HERE, uri.c_str(), SECRET(GetSecure(uri)));
    return answer.ok() && answer->getBool(0);
}

bool SDConfigClient::isStrongControl(const std::string& key) {
    const Answer answer = request(protocol::kIsStrongControl, {key});
    if (answer.ok()) return answer->getBool(0);
    LOG(7, AT "error reply: type=%d, isStrongControl key : %s failed", HERE, answer.type(), key.c_str());
    return false;
}

bool SDConfigClient::GetAllKeys(PolicyList& policies) {
    const Answer answer = request(protocol::kListPolicies, {});
    if (answer.ok())
        readPolicies(*answer, policies);
    else
        LOG(7, AT "error reply: type=%d", HERE, answer.type());
    return answer.ok();
}

bool SDConfigClient::ClearAllKeys() {
    const Answer answer = request(protocol::kClearPolicies, {});
    if (answer.ok()) return answer->getBool(0);
    LOG(7, AT "error reply: type=%d", HERE, answer.type());
    return false;
}

// ---- Listeners ----

bool SDConfigClient::RegisterListener(const std::string& key, DMConfig::Listener* listener, bool flag) {
    const std::lock_guard registration(mRegistering);
    if (mListenerMap->addToKnown(key, listener)) {
        LOG(5, AT "the key is already registered", HERE);
        return true;
    }
    ListenerMap::Registrations registrations{{key, {listener}}};
    const auto call = makeCall(protocol::kRegisterListener);
    call->appendString(key);
    call->appendBool(flag);
    const Answer answer = sendRegistration(call);
    if (!answer.ok()) {
        LOG(7, AT "error reply: type=%d, RegisterListener key : %s failed, ", HERE, answer.type(), key.c_str());
        if (answer.errorType() == SDBusUnread) mListenerMap->noteOvercounted(std::move(registrations));
        takeBackOvercounted();
        return false;
    }
    if (!answer->getBool(0)) return false;
    mListenerMap->add(std::move(registrations));
    return true;
}

bool SDConfigClient::UnRegisterListener(const std::string& key, DMConfig::Listener* listener, bool flag) {
    const bool unregistered = unregister(key, listener, flag);
    mListenerMap->awaitDelivery(listener);  // without the lock, which the running listener may want
    return unregistered;
}

bool SDConfigClient::unregister(const std::string& key, DMConfig::Listener* listener, bool flag) {
    const std::lock_guard registration(mRegistering);
    takeBackOvercounted();
    ListenerMap::Registrations taken{{key, {}}};  // before it is taken out: memory may run out
    const ListenerMap::Removal removal = mListenerMap->remove(key, listener);
    if (removal != ListenerMap::Removal::Done) {
        const char* const what = removal == ListenerMap::Removal::NoKey ? "key" : "listener";
        LOG(6, AT "the %s has been already erased", HERE_AS("UnRegisterListener"), what);
        return false;
    }
    struct Untold {
        SDConfigClient& client;
        ListenerMap::Registrations keys;
        ~Untold() {
            client.mListenerMap->noteOvercounted(std::move(keys));
            client.takeBackOvercounted();
        }
    };
    Untold untold{*this, std::move(taken)};
    const Answer answer = sendUnregistration(key, flag);
    if (answer.errorType() != SDBusNotSent) untold.keys.clear();
    if (answer.ok()) return answer->getBool(0);
    LOG(7, AT "error reply: type=%d, UnRegisterListener key : %s failed, ", HERE_AS("UnRegisterListener"),
        answer.type(), key.c_str());
    return false;
}

SDConfigClient::Answer SDConfigClient::sendUnregistration(const std::string& key, bool flag) {
    const auto call = makeCall(protocol::kUnregisterListener);
    call->appendString(key);
    call->appendBool(flag);
    return send(call);
}

// What finds no memory now is left for the next time.
void SDConfigClient::takeBackOvercounted() noexcept {
    while (auto one = mListenerMap->takeOvercounted()) {
        bool isSent = false;
        try {
            isSent = sendUnregistration(one.key(), false).errorType() != SDBusNotSent;
        } catch (const std::bad_alloc&) {
        }
        if (!isSent) return mListenerMap->noteOvercounted(std::move(one));
    }
}

bool SDConfigClient::RegisterListenersWithList(const DMConfig::ListenerList& listeners, bool flag) {
    ListenerMap::Registrations registrations;
    for (const auto& [key, listener] : listeners) registrations[key] = {listener};
    const auto call = makeCall(protocol::kRegisterListeners);
    call->appendInt8(narrowed(listeners.size()));
    for (const auto& [key, listener] : listeners) call->appendString(key);
    call->appendBool(flag);
    const Answer answer = sendRegistration(call);
    if (!answer.ok()) {
        LOG(7, AT "error reply: type=%d, RegisterListenersWithList failed", HERE, answer.type());
        const bool areCounted = listeners.size() <= INT8_MAX;  // of more the service has read no list
        if (answer.errorType() == SDBusUnread && areCounted) mListenerMap->noteOvercounted(std::move(registrations));
        takeBackOvercounted();
        return false;
    }
    if (!answer->getBool(0)) return false;
    mListenerMap->add(std::move(registrations));
    return true;
}

// ---- The facade ----

DMConfig* DMConfig::GetInstance() {
    static DMConfig instance;
    return &instance;
}

bool DMConfig::SetPolicyWithUri(const std::string& uri, const PolicyMap& policy) {
    if (policy.size() != 1) {
        LOG(7, AT "error type, SetPolicyWithUri failed", HERE);
        return false;
    }
    const auto& [value, priority] = *policy.begin();
    return withClient(__func__, false, [&, &v = value, p = priority](SDConfigClient& client) {
        return client.SetPolicyWithUri(uri, v, p);
    });
}

bool DMConfig::SetPolicyList(const PolicyList& policies) {
    return withClient(__func__, false, [&](SDConfigClient& client) { return client.SetPolicyList(policies); });
}

PolicyMap DMConfig::GetPolicyWithUri(const std::string& uri) {
    return withClient(__func__, PolicyMap(), [&](SDConfigClient& client) { return client.GetPolicyWithUri(uri); });
}

bool DMConfig::GetPoliciesWithUris(const std::vector<std::string>& uris, PolicyList* policies) {
    if (!policies) return false;
    if (uris.empty()) {
        LOG(7, AT "keys is empty", HERE);
        return false;
    }
    return withClient(__func__, false,
                      [&](SDConfigClient& client) { return client.GetPoliciesWithUris(uris, *policies); });
}

bool DMConfig::GetAllKeys(PolicyList* policies) {
    if (!policies) return false;
    return withClient(__func__, false, [&](SDConfigClient& client) { return client.GetAllKeys(*policies); });
}

bool DMConfig::DeletePolicyWithUri(const std::string& uri) {
    return withClient(__func__, false, [&](SDConfigClient& client) { return client.DeletePolicyWithUri(uri); });
}

bool DMConfig::ClearAllKeys() {
    return withClient(__func__, false, [&](SDConfigClient& client) { return client.ClearAllKeys(); });
}

bool DMConfig::isStrongControl(const std::string& key) {
    return withClient(__func__, false, [&](SDConfigClient& client) { return client.isStrongControl(key); });
}

bool DMConfig::RegisterListener(const std::string& key, Listener* listener, bool flag) {
    if (!listener) {
        LOG(7, AT "no listener, RegisterListener key : %s failed", HERE, key.c_str());
        return false;
    }
    return withClient(__func__, false,
                      [&](SDConfigClient& client) { return client.RegisterListener(key, listener, flag); });
}

bool DMConfig::UnRegisterListener(const std::string& key, Listener* listener, bool flag) {
    return withClient(__func__, false,
                      [&](SDConfigClient& client) { return client.UnRegisterListener(key, listener, flag); });
}

bool DMConfig::RegisterListenersWithList(const ListenerList& listeners, bool flag) {
    for (const auto& [key, listener] : listeners) {
        if (listener) continue;
        LOG(7, AT "no listener, RegisterListenersWithList key : %s failed", HERE, key.c_str());
        return false;
    }
    return withClient(__func__, false,
                      [&](SDConfigClient& client) { return client.RegisterListenersWithList(listeners, flag); });
}

bool DMConfig::IsAllConfigsAlreadyListened(const std::vector<std::string>& keys) {
    return withClient(__func__, false,
                      [&](SDConfigClient& client) { return client.IsAllConfigsAlreadyListened(keys); });
}

}  // namespace sd
