// The dispatcher: a member function for each of the 22 methods and those beside them, and the table that names them.
#include <algorithm>
#include <cstdint>

#include "base/sdconfig_types.h"
#include "platform/velmarlog/log_secret.h"
#include "src/sdconfig_impl.h"
#include "src/sdconfig_impl_policy.h"
#include "src/sdconfig_impl_property.h"
#include "src/sdconfig_interface.h"
#include "src/sdconfig_interface_call.h"
#include "src/sdconfig_key_keeper.h"
#include "src/sdconfig_protocol.h"
#include "src/sdconfig_trail_keeper.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "src/sdconfig_service_sdbus";

constexpr int kSlowCallMs = 500;
constexpr int kPriorityUnknown = -1;

// The most that one call about several policies may work through, so that others are answered within a second: the keys
// and values of a list that is set, one policy of any size among them, and what is stored under its keys, or under
// those that are asked for. Stored texts are longer than what they hold.
constexpr std::size_t kListBytesMax = kKeyBytesMax + kValueBytesMax;
constexpr std::size_t kStoredBytesMax = std::size_t{96} << 20;
constexpr std::size_t kAnswerBytesMax = kStoredBytesMax / 4 * 3;  // of values, which is what so much holds

std::vector<std::string> readKeys(SDBusMessage& message, int count) {
    std::vector<std::string> keys;
    for (int i = 1; i <= count; ++i) keys.push_back(message.getString(i));
    return keys;
}

// An element of a list of policies.
struct Triple {
    std::string key;
    std::string value;
    int priority;
};

std::vector<Triple> readTriples(SDBusMessage& message, int count) {
    std::vector<Triple> triples;
    for (int at = 1; at < 3 * count; at += 3)
        triples.push_back({message.getString(at), message.getString(at + 1), message.getInt(at + 2)});
    return triples;
}

// Whether the elements have more than `most` bytes together. Looks no further than that.
template <class Elements, class Bytes>
bool isBeyond(std::size_t most, const Elements& elements, Bytes bytesOf) {
    std::size_t sum = 0;
    return std::any_of(elements.begin(), elements.end(),
                       [&](const auto& element) { return (sum += bytesOf(element)) > most; });
}

}  // namespace

void SDConfigInterface::Call::logIfSlow() const {
    if (const int ms = watch.elapsedMs(); ms >= kSlowCallMs) LOG(6, AT "%s takes %d ms", DISPATCH, method.c_str(), ms);
}

struct SDConfigInterface::Method {
    const char* name;
    bool (SDConfigInterface::*handle)(Call&);
};

const SDConfigInterface::Method SDConfigInterface::kMethods[] = {
    {protocol::kGetProperty, &SDConfigInterface::getProperty},
    {protocol::kSetProperty, &SDConfigInterface::setProperty},
    {protocol::kListProperty, &SDConfigInterface::listProperty},
    {protocol::kDeleteProperty, &SDConfigInterface::deleteProperty},
    {protocol::kGetSecure, &SDConfigInterface::getSecure},
    {protocol::kSetSecure, &SDConfigInterface::setSecure},
    {protocol::kDeleteSecure, &SDConfigInterface::deleteSecure},
    {protocol::kGetConst, &SDConfigInterface::getConst},
    {protocol::kSignRequest, &SDConfigInterface::signRequest},
    {protocol::kVerifySign, &SDConfigInterface::verifySign},
    {protocol::kRegisterListener, &SDConfigInterface::registerListener},
    {protocol::kUnregisterListener, &SDConfigInterface::unregisterListener},
    {protocol::kIsAlreadyListened, &SDConfigInterface::isAlreadyListened},
    {protocol::kSetPolicyList, &SDConfigInterface::setPolicyList},
    {protocol::kSetPolicy, &SDConfigInterface::setPolicy},
    {protocol::kGetPolicy, &SDConfigInterface::getPolicy},
    {protocol::kDeletePolicy, &SDConfigInterface::deletePolicy},
    {protocol::kIsStrongControl, &SDConfigInterface::isStrongControl},
    {protocol::kRegisterListeners, &SDConfigInterface::registerListeners},
    {protocol::kListPolicies, &SDConfigInterface::listPolicies},
    {protocol::kClearPolicies, &SDConfigInterface::clearPolicies},
    {protocol::kGetPolicies, &SDConfigInterface::getPolicies},
    {protocol::kKeyRotate, &SDConfigInterface::rotateKey},
    {protocol::kKeyReseal, &SDConfigInterface::resealRows},
    {protocol::kKeyEnable, &SDConfigInterface::enableKey},
    {protocol::kKeyPrune, &SDConfigInterface::pruneKeys},
    {protocol::kPoliciesRead, &SDConfigInterface::takePolicies},
    {protocol::kPoliciesStatus, &SDConfigInterface::policiesStatus},
    {protocol::kPoliciesGoverning, &SDConfigInterface::governingPolicies},
    {protocol::kPoliciesList, &SDConfigInterface::listMachinePolicies},
    {protocol::kListenersList, &SDConfigInterface::listListeners},
    {protocol::kKeySlots, &SDConfigInterface::listSlots},
    {protocol::kKeyProtect, &SDConfigInterface::protectRing},
    {protocol::kKeyUnprotect, &SDConfigInterface::unprotectRing},
    {protocol::kKeyUnlock, &SDConfigInterface::unlockRing},
    {protocol::kKeyRecover, &SDConfigInterface::recoverRing},
    {protocol::kTrailStatus, &SDConfigInterface::trailStatus},
};

bool SDConfigInterface::handleMethodCall(std::shared_ptr<SDBusMessage> message) {
    const std::string name = message->methodName();
    initManager();
    beginTrail();
    auto sdconfigChanged = mManager->makeEventMessage(protocol::kSdconfigChanged, SDBusSameUser);
    auto policyChanged = mManager->makeEventMessage(protocol::kPolicyChanged, SDBusSameUser);
    Call call{name,
              message,
              std::move(sdconfigChanged),
              std::move(policyChanged),
              Stopwatch(),
              *SDConfigImpl::GetInstance(),
              *SDPropertyInf::GetInstance(),
              SDConfigDmHelper::GetInstance()};

    const auto method =
        std::find_if(std::begin(kMethods), std::end(kMethods), [&](const Method& m) { return name == m.name; });
    if (method == std::end(kMethods)) {
        LOG(6, AT "can't understand method call: %s", DISPATCH, name.c_str());
        return false;
    }
    return (this->*method->handle)(call);
}

std::shared_ptr<SDBusMessage> SDConfigInterface::makeReply(const Call& call) {
    return makeMethodReplyMessage(call.request, SDBusSameUser);
}

void SDConfigInterface::replyBool(const Call& call, bool value) {
    const auto reply = makeReply(call);
    reply->appendBool(value);
    sendMessage(reply);
}

void SDConfigInterface::replyText(const Call& call, const std::string& value) {
    const auto reply = makeReply(call);
    reply->appendCString(value.c_str());
    sendMessage(reply);
}

// Nothing when the policy store's answer doesn't hold exactly one entry.
std::optional<SDConfigInterface::Effective> SDConfigInterface::effectiveOf(PolicyMap effective) {
    if (effective.size() != 1) return std::nullopt;
    auto only = effective.extract(effective.begin());
    return Effective{only.key() == kNullValue ? "" : std::move(only.key()), only.mapped()};
}

std::optional<SDConfigInterface::Effective> SDConfigInterface::readBack(const Call& call, const std::string& key) {
    return effectiveOf(call.policies.GetPolicyWithUri(key));
}

// ---- Properties ----

bool SDConfigInterface::getProperty(Call& call) {
    const auto reply = makeReply(call);
    reply->appendString(call.properties.GetProperty(call.request->getString(0)));
    sendMessage(reply);
    return true;
}

bool SDConfigInterface::setProperty(Call& call) {
    const std::string key = call.request->getString(0);
    const std::string value = call.request->getString(1);
    const std::string old = call.properties.GetProperty(key);
    const bool ok = call.properties.SetProperty(key, value);
    if (!ok) LOG(7, AT "SetProperty error", DISPATCH);
    noteProperty(call, key, old, value, ok);
    replyBool(call, ok);
    if (ok && value != old) DMChanged(key, value, true);
    return true;
}

bool SDConfigInterface::listProperty(Call& call) {
    const auto reply = makeReply(call);
    appendProperties(*reply, call.properties.ListProperty());
    sendMessage(reply);
    return true;
}

void SDConfigInterface::appendProperties(SDBusMessage& reply, const std::map<std::string, std::string>& properties) {
    int count = static_cast<int>(properties.size());
    if (count > protocol::kMaxElements) {
        LOG(6, AT "trim property element from %d to %d", DISPATCH, count, protocol::kMaxElements);
        count = protocol::kMaxElements;
    }
    reply.appendInt32(count);
    auto property = properties.begin();
    for (int i = 0; i < count; ++i, ++property) {
        reply.appendCString(property->first.c_str());
        reply.appendCString(property->second.c_str());
    }
}

bool SDConfigInterface::deleteProperty(Call& call) {
    const std::string key = call.request->getString(0);
    const std::string old = mTrail ? call.properties.GetProperty(key) : "";
    const bool ok = call.properties.DeleteProperty(key);
    if (!ok) LOG(7, AT "DeleteProperty error", DISPATCH);
    noteProperty(call, key, old, "", ok);
    replyBool(call, ok);
    if (ok) DMChanged(key, "", true);
    return true;
}

// ---- Secure values, constants, signing ----

bool SDConfigInterface::getSecure(Call& call) {
    const std::string key = call.request->getString(0);
    const std::string value = call.config.GetSecure(key);
    call.logIfSlow();
    if (noteRead(call, key, value)) mTrail->sync();
    const auto reply = makeReply(call);
    reply->appendCString(value.c_str());
    // So that a caller does not take what can't be read for unset, and write over it.
    if (value.empty() && call.policies.isUnopenable(key)) reply->appendBool(true);
    sendMessage(reply);
    if (isIdentityKey(key)) LOG(5, AT "key is %s, value is %s", DISPATCH, key.c_str(), SECRET(value));
    return true;
}

bool SDConfigInterface::setSecure(Call& call) {
    const std::string key = call.request->getString(0);
    PolicyLayers layers;
    const std::string old = call.config.GetSecure(key, mTrail ? &layers : nullptr);
    const bool ok = storeSecure(call, key, call.request->getString(1), old, std::move(layers));
    call.logIfSlow();
    if (!ok) LOG(7, AT "SetSecure error", DISPATCH);
    replyBool(call, ok);

    const bool strong = call.policies.isStrongControl(key);
    const auto latest = readBack(call, key);
    if (!latest) {
        LOG(7, AT "GET_POLICY format error", DISPATCH);
        return false;
    }
    if (latest->value != old) {
        if (ok) DMChanged(key, latest->value, strong);
        announceSecure(call, key, latest->value);
    }
    if (isIdentityKey(key))
        LOG(5, AT "key is %s, oldVal is %s, latestVal is %s", DISPATCH, key.c_str(), SECRET(old),
            SECRET(call.config.GetSecure(key)));
    return true;
}

bool SDConfigInterface::deleteSecure(Call& call) {
    const std::string key = call.request->getString(0);
    PolicyLayers layers;
    const std::string old = call.config.GetSecure(key, mTrail ? &layers : nullptr);
    const bool ok = storeSecure(call, key, std::nullopt, old, std::move(layers));
    if (!ok) {
        // No answer on purpose: the caller's time-out is how a failed deletion is told.
        LOG(7, AT "DeleteSecure error, key is %s", DISPATCH, key.c_str());
        return false;
    }
    replyBool(call, true);

    const bool strong = call.policies.isStrongControl(key);
    const PolicyMap effective = call.policies.GetPolicyWithUri(key);
    if (effective.size() > 1) {
        LOG(7, AT "error size", DISPATCH);
        return true;
    }
    if (effective.empty()) {  // a store that weighs policies never answers so: it has an entry for an unset key, too
        LOG(6, AT "dm and config are empty, the key is %s", DISPATCH, key.c_str());
        DMChanged(key, "", strong);
        announceSecure(call, key, "");
    } else {
        const std::string& value = effective.begin()->first;
        const std::string latest = value == kNullValue ? "" : value;
        if (latest != old) {
            DMChanged(key, latest, strong);
            announceSecure(call, key, latest);
        }
    }
    if (isIdentityKey(key))
        LOG(5, AT "key is %s, latestVal is %s", DISPATCH, key.c_str(), SECRET(call.config.GetSecure(key)));
    return true;
}

void SDConfigInterface::announceSecure(const Call& call, const std::string& key, const std::string& value) {
    call.sdconfigChanged->appendString(key);
    call.sdconfigChanged->appendString(value);
    mManager->publishEvent(call.sdconfigChanged);
}

bool SDConfigInterface::getConst(Call& call) {
    replyText(call, call.config.GetConst(call.request->getString(0)));
    return true;
}

bool SDConfigInterface::signRequest(Call& call) {
    replyText(call, call.config.SignRequest(call.request->getString(0)));
    return true;
}

bool SDConfigInterface::verifySign(Call& call) {
    const bool ok = call.config.VerifyRequest(call.request->getString(0), call.request->getString(1));
    if (!ok) LOG(7, AT "VerifyRequest error", DISPATCH);
    replyBool(call, ok);
    return true;
}

// ---- Listeners ----

bool SDConfigInterface::registerListener(Call& call) {
    RegisterListener(call.request->getString(0), call.request->getBool(1));
    replyBool(call, true);
    return true;
}

bool SDConfigInterface::unregisterListener(Call& call) {
    const std::string key = call.request->getString(0);
    (void)call.request->getBool(1);  // the flag has no meaning here; a request that lacks it is told in the log
    const bool ok = UnRegisterListener(key, false);
    if (!ok) LOG(7, AT "registerListener error", DISPATCH);
    replyBool(call, ok);
    return true;
}

bool SDConfigInterface::isAlreadyListened(Call& call) {
    const bool ok = IsAllConfigsAlreadyListened(readKeys(*call.request, call.request->getInt(0)));
    if (!ok) LOG(7, AT "IsAllConfigsAlreadyListened error", DISPATCH);
    replyBool(call, ok);
    return true;
}

bool SDConfigInterface::registerListeners(Call& call) {
    const int count = call.request->getInt(0);
    const bool flag = call.request->getBool(count + 1);
    const bool ok = RegisterListenersWithList(readKeys(*call.request, count), flag);
    if (!ok) LOG(7, AT "RegisterListenersWithList error", DISPATCH);
    replyBool(call, ok);
    return true;
}

// ---- Policies ----

SDConfigInterface::PolicyChange SDConfigInterface::writePolicy(Call& call, const std::string& key,
                                                               const std::string& value, int priority) {
    PolicyLayers layers;
    const std::string old = call.config.GetSecure(key, mTrail ? &layers : nullptr);
    PolicyChange change{key, value, old, call.policies.isStrongControl(key), false};
    change.ok = storePolicy(call, key, {{value, priority}}, old, std::move(layers));
    return change;
}

// Tells of what the written policy changed. event: the empty ".DMChanged" to publish; null makes one where it is
// needed. Returns the effective value; nothing when it can't be read back.
std::optional<SDConfigInterface::Effective> SDConfigInterface::announcePolicy(const Call& call,
                                                                              const PolicyChange& change,
                                                                              std::shared_ptr<SDBusMessage> event) {
    const bool strongAfter = call.policies.isStrongControl(change.key);
    auto latest = readBack(call, change.key);
    if (!latest) {
        LOG(7, AT "GET_POLICY format error", DISPATCH);
        return latest;
    }
    const bool changed = latest->value != change.old;
    const bool flipped = change.strongBefore != strongAfter;
    if (change.ok && (changed || flipped)) {
        if (!event) event = mManager->makeEventMessage(protocol::kPolicyChanged, SDBusSameUser);
        event->appendString(change.key);
        event->appendString(latest->value);
        event->appendBool(strongAfter);
        mManager->publishEvent(event);
    }
    // A mere flip interests only listeners that asked for the flag.
    const bool notify = changed ? change.ok : change.ok && flipped && mListenerFlags[change.key];
    if (notify) DMChanged(change.key, latest->value, strongAfter);
    if (isIdentityKey(change.key))
        LOG(5, AT "key is %s, value is %s, latestVal is %s", DISPATCH, change.key.c_str(), SECRET(change.value),
            SECRET(latest->value));
    return latest;
}

bool SDConfigInterface::setPolicy(Call& call) {
    const PolicyChange change =
        writePolicy(call, call.request->getString(0), call.request->getString(1), call.request->getInt(2));
    call.logIfSlow();
    if (!change.ok) LOG(7, AT "SetPolicyWithUri error", DISPATCH);
    replyBool(call, change.ok);
    return announcePolicy(call, change, call.policyChanged).has_value();
}

bool SDConfigInterface::setPolicyList(Call& call) {
    int count = call.request->getInt(0);
    if (count > protocol::kMaxElements) {
        LOG(6, AT "trim DM element from %d to %d", DISPATCH, count, protocol::kMaxElements);
        count = protocol::kMaxElements;
    }
    const std::vector<Triple> triples = readTriples(*call.request, count);
    if (isBeyond(kListBytesMax, triples, [](const Triple& one) { return one.key.size() + one.value.size(); }) ||
        isBeyond(kStoredBytesMax, triples, [&](const Triple& one) { return call.policies.storedBytes(one.key); })) {
        LOG(7, AT "set policylist refused: its values, or those in their place, are too long together", DISPATCH);
        noteFailure(call, triples.size());
        replyBool(call, false);
        return true;
    }
    bool ok = false;  // also the answer where there is nothing to write
    for (const Triple& one : triples) {
        const PolicyChange change = writePolicy(call, one.key, one.value, one.priority);
        if (!change.ok) LOG(7, AT "set policylist failed", DISPATCH);
        if (!announcePolicy(call, change, nullptr)) return false;
        ok = change.ok;
    }
    call.logIfSlow();
    replyBool(call, ok);
    return true;
}

bool SDConfigInterface::getPolicy(Call& call) {
    const std::string key = call.request->getString(0);
    const auto latest = readBack(call, key);
    call.logIfSlow();
    if (!latest) {
        LOG(7, AT "GET_POLICY format error", DISPATCH);
        return false;
    }
    if (noteRead(call, key, latest->value)) mTrail->sync();
    const auto reply = makeReply(call);
    reply->appendString(latest->value);
    reply->appendInt8(static_cast<int8_t>(latest->priority));
    sendMessage(reply);
    if (isIdentityKey(key)) LOG(5, AT "key is %s, value is %s", DISPATCH, key.c_str(), SECRET(latest->value));
    return true;
}

bool SDConfigInterface::deletePolicy(Call& call) {
    const std::string key = call.request->getString(0);
    const bool ok = erasePolicy(call, key);
    call.logIfSlow();
    replyBool(call, ok);
    if (ok) DMChanged(key, "", false);
    if (isIdentityKey(key))
        LOG(5, AT "key is %s, latestVal is %s", DISPATCH, key.c_str(), SECRET(call.config.GetSecure(key)));
    return true;
}

bool SDConfigInterface::isStrongControl(Call& call) {
    const bool strong = call.policies.isStrongControl(call.request->getString(0));
    call.logIfSlow();
    replyBool(call, strong);
    return true;
}

// Announces at most 122 policies but writes them all: readers go by the count.
bool SDConfigInterface::listPolicies(Call& call) {
    const auto all = call.policies.allKeysWithin(kAnswerBytesMax);
    if (!all) {
        LOG(7, AT "DM_LIST refused: its values are too long together", DISPATCH);  // no answer, as below
        return false;
    }
    int count = static_cast<int>(all->size());
    if (count > protocol::kMaxElements) {
        LOG(6, AT "trim DM element from %d to %d", DISPATCH, count, protocol::kMaxElements);
        count = protocol::kMaxElements;
    }
    const auto reply = makeReply(call);
    reply->appendInt8(static_cast<int8_t>(count));
    bool isNoted = false;
    for (const auto& [uri, policy] : *all) {
        reply->appendString(uri);
        for (const auto& [value, priority] : policy) {
            isNoted = noteRead(call, uri, value) || isNoted;
            reply->appendString(value);
            reply->appendInt8(static_cast<int8_t>(priority));
        }
    }
    if (isNoted) mTrail->sync();
    sendMessage(reply);
    return true;
}

bool SDConfigInterface::clearPolicies(Call& call) {
    const bool ok = eraseAllPolicies(call);
    if (!ok) LOG(7, AT "clear all keys in DM table failed", DISPATCH);
    replyBool(call, ok);
    return true;
}

bool SDConfigInterface::getPolicies(Call& call) {
    const int count = call.request->getInt(0);
    const auto reply = makeReply(call);
    if (count < 1) {
        LOG(7, AT "DM_GET_POLICIES: keys is empty", DISPATCH);
        reply->appendInt8(0);
        sendMessage(reply);
        return false;
    }
    const std::vector<std::string> keys = readKeys(*call.request, count);
    if (isBeyond(kStoredBytesMax, keys, [&](const std::string& key) { return call.policies.storedBytes(key); })) {
        // No answer, as to every question whose answer can't be sent.
        LOG(7, AT "DM_GET_POLICIES refused: what is stored under its keys is too long together", DISPATCH);
        return false;
    }
    reply->appendInt8(static_cast<int8_t>(count));
    bool isNoted = false;
    for (const std::string& key : keys) {
        const Effective latest = readBack(call, key).value_or(Effective{"", kPriorityUnknown});
        isNoted = noteRead(call, key, latest.value) || isNoted;
        reply->appendString(key);
        reply->appendString(latest.value);
        reply->appendInt8(static_cast<int8_t>(latest.priority));
    }
    if (isNoted) mTrail->sync();
    sendMessage(reply);
    call.logIfSlow();
    return true;
}

// ---- Keys ----

KeyKeeper& SDConfigInterface::keys(const Call& call) {
    if (!mKeys) mKeys = std::make_unique<KeyKeeper>(call.config, call.policies);
    return *mKeys;
}

void SDConfigInterface::appendRows(SDBusMessage& reply, const SealedRows& rows) {
    reply.appendInt32(static_cast<int32_t>(rows.count));
    reply.appendInt8(static_cast<int8_t>(rows.first.size()));
    for (const SealedRow& row : rows.first) {
        reply.appendBool(row.isPolicy);
        reply.appendString(row.key);
    }
}

bool SDConfigInterface::rotateKey(Call& call) {
    const bool isToReseal = call.request->getBool(0);
    const KeyKeeper::Rotation rotation = keys(call).rotate(isToReseal);
    noteRing(entryOf(call), rotation.outcome == protocol::KeyOutcome::Done,
             "key " + rotation.keyId + (rotation.goesOn ? " goes on sealing" : " seals") +
                 (isToReseal ? ", and all is to be sealed anew" : ""));
    const auto reply = makeReply(call);
    reply->appendInt8(static_cast<int8_t>(rotation.outcome));
    reply->appendString(rotation.keyId);
    reply->appendBool(rotation.goesOn);
    sendMessage(reply);
    return true;
}

bool SDConfigInterface::resealRows(Call& call) {
    const KeyKeeper::Resealing step = keys(call).reseal();
    call.logIfSlow();
    if (step.isAtEnd || step.outcome != protocol::KeyOutcome::Done) {
        trail::Entry entry = entryOf(call);
        entry.count = static_cast<std::uint64_t>(step.sealed);
        noteRing(std::move(entry), step.outcome == protocol::KeyOutcome::Done, "under key " + step.keyId);
    }
    const auto reply = makeReply(call);
    reply->appendInt8(static_cast<int8_t>(step.outcome));
    reply->appendBool(step.isAtEnd);
    reply->appendInt8(static_cast<int8_t>(step.percent));
    reply->appendString(step.keyId);
    reply->appendInt32(static_cast<int32_t>(step.sealed));
    appendRows(*reply, step.left);
    sendMessage(reply);
    return true;
}

bool SDConfigInterface::enableKey(Call& call) {
    constexpr std::size_t kShownMost = 64;  // more than an id has
    const bool isToOpen = call.request->getBool(1);
    const std::string asked = call.request->getString(0);
    const KeyKeeper::Change change = keys(call).enable(asked, isToOpen);
    noteRing(entryOf(call), change.outcome == protocol::KeyOutcome::Done,
             "key " + (change.keyId.empty() ? asked.substr(0, kShownMost) : change.keyId) +
                 (isToOpen ? " enabled" : " disabled"));
    const auto reply = makeReply(call);
    reply->appendInt8(static_cast<int8_t>(change.outcome));
    reply->appendString(change.keyId);
    sendMessage(reply);
    return true;
}

bool SDConfigInterface::pruneKeys(Call& call) {
    const KeyKeeper::Pruning step = keys(call).prune(call.request->getBool(0));
    const bool isDone = step.outcome == protocol::KeyOutcome::Done;
    if (!step.removedNow.empty() || !isDone || (step.isAtEnd && step.removed.empty()))
        noteRing(entryOf(call), isDone, step.removedNow.empty() ? "no key" : "key " + step.removedNow);
    const auto reply = makeReply(call);
    reply->appendInt8(static_cast<int8_t>(step.outcome));
    reply->appendBool(step.isAtEnd);
    reply->appendInt8(static_cast<int8_t>(step.percent));
    reply->appendInt32(static_cast<int32_t>(step.removed.size()));
    for (const std::string& id : step.removed) reply->appendString(id);
    reply->appendInt32(static_cast<int32_t>(step.needed.size()));
    for (const auto& [id, rows] : step.needed) {
        reply->appendString(id);
        appendRows(*reply, rows);
    }
    sendMessage(reply);
    return true;
}

}  // namespace sd
