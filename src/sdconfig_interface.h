// The service's end of the bus: dispatches method calls to the stores, keeps the listeners' registrations, publishes
// changes. Not for users of the library.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/sdconfig_types.h"
#include "platform/sdbus/sdbus.h"
#include "src/sdconfig_callers.h"
#include "trail/entry.h"

namespace sd {

class KeyKeeper;
class PolicyKeeper;
class SlotKeeper;
class TrailKeeper;
struct PolicyLayers;
struct SealedRows;
struct TrailChange;

// The bus layer calls handleMethodCall on one thread, one call at a time; nothing else touches the stores.
class SDConfigInterface : public SDBusServiceInterface {
public:
    // Opens both stores, so that their tables are there before the service is registered; neither where nobody can say
    // which folder they are in (settleDataPath).
    SDConfigInterface();
    ~SDConfigInterface() override;

    void initManager();

    // The policies of the machine, in the folders that the host told or in the standard ones: reads them before
    // anything is served, false where memory or descriptors were short of that; and has changes taken up from then on,
    // false where that can't be.
    bool readMachinePolicies();
    bool watchMachinePolicies();

    // The trail, where the host wants one: what was carried of it is read before anything is served; and it begins
    // once nobody else serves.
    void openTrail();
    void beginTrail();

    // Registrations per key: how many are live, and whether the latest one asked for the strong-control flag.
    bool RegisterListener(const std::string& key, bool flag);
    bool UnRegisterListener(const std::string& key, bool flag);
    bool RegisterListenersWithList(const std::vector<std::string>& keys, bool flag);
    bool IsAllConfigsAlreadyListened(const std::vector<std::string>& keys);

    // Publishes "DM_CHANGED" if a registration of the key is live.
    bool DMChanged(const std::string& key, const std::string& value, bool strong);

    // True when the method is known and its answer could be given. Where it is false, no answer was sent.
    bool handleMethodCall(std::shared_ptr<SDBusMessage> message) override;

    // Appends the count of the properties, at most 122, and so many pairs.
    static void appendProperties(SDBusMessage& reply, const std::map<std::string, std::string>& properties);

private:
    struct Call;
    struct Effective;
    struct PolicyChange;
    struct Method;
    static const Method kMethods[];

    bool getProperty(Call& call);
    bool setProperty(Call& call);
    bool listProperty(Call& call);
    bool deleteProperty(Call& call);
    bool getSecure(Call& call);
    bool setSecure(Call& call);
    bool deleteSecure(Call& call);
    bool getConst(Call& call);
    bool signRequest(Call& call);
    bool verifySign(Call& call);
    bool registerListener(Call& call);
    bool unregisterListener(Call& call);
    bool isAlreadyListened(Call& call);
    bool setPolicyList(Call& call);
    bool setPolicy(Call& call);
    bool getPolicy(Call& call);
    bool deletePolicy(Call& call);
    bool isStrongControl(Call& call);
    bool registerListeners(Call& call);
    bool listPolicies(Call& call);
    bool clearPolicies(Call& call);
    bool getPolicies(Call& call);
    bool rotateKey(Call& call);
    bool resealRows(Call& call);
    bool enableKey(Call& call);
    bool pruneKeys(Call& call);
    bool takePolicies(Call& call);
    bool policiesStatus(Call& call);
    bool governingPolicies(Call& call);
    bool listMachinePolicies(Call& call);
    bool listListeners(Call& call);
    bool listSlots(Call& call);
    bool protectRing(Call& call);
    bool unprotectRing(Call& call);
    bool unlockRing(Call& call);
    bool recoverRing(Call& call);
    bool trailStatus(Call& call);

    KeyKeeper& keys(const Call& call);
    SlotKeeper& slots();
    std::function<void(int, const std::string&)> slotAnswer(const Call& call, const std::string& slot);
    static void appendRows(SDBusMessage& reply, const SealedRows& rows);
    std::shared_ptr<SDBusMessage> makeReply(const Call& call);
    void replyBool(const Call& call, bool value);
    void replyText(const Call& call, const std::string& value);
    static std::optional<Effective> effectiveOf(PolicyMap policy);
    std::optional<Effective> readBack(const Call& call, const std::string& key);
    void announceSecure(const Call& call, const std::string& key, const std::string& value);
    PolicyChange writePolicy(Call& call, const std::string& key, const std::string& value, int priority);
    std::optional<Effective> announcePolicy(const Call& call, const PolicyChange& change,
                                            std::shared_ptr<SDBusMessage> event);
    bool tellOfPolicies(const Call& call);

    trail::Entry entryOf(const Call& call);
    TrailChange changeOf(const Call& call, const std::string& key, const std::string& old);
    bool noteRead(const Call& call, const std::string& key, const std::string& value);
    void noteProperty(const Call& call, const std::string& key, const std::string& old, const std::string& value,
                      bool isDone);
    bool storeSecure(const Call& call, const std::string& key, const std::optional<std::string>& value,
                     const std::string& old, PolicyLayers layers);
    bool storePolicy(Call& call, const std::string& key, const PolicyMap& policy, const std::string& old,
                     PolicyLayers layers);
    bool erasePolicy(Call& call, const std::string& key);
    TrailChange erasureOf(const Call& call, const std::string& uri);
    bool eraseAllPolicies(const Call& call);
    void noteMachinePolicy(const Call& call, const std::string& uri, const std::string& old, const std::string& latest);
    void noteFailure(const Call& call, std::size_t count);
    void noteRing(trail::Entry entry, bool isDone, std::string why);

    void countRegistration(const std::string& key, bool flag);  // under mMutex

    SDBusSerivceManager* mManager;
    std::unique_ptr<KeyKeeper> mKeys;             // made by the first call that needs it
    std::unique_ptr<PolicyKeeper> mPolicyKeeper;  // null where there are no policies of the machine
    Callers mCallers;
    std::unique_ptr<TrailKeeper> mTrail;  // null where none is kept
    std::mutex mMutex;
    std::map<std::string, int> mListenerCounts;
    std::map<std::string, bool> mListenerFlags;
    // Made by the first call about slots; goes first, since its thread answers calls of this object.
    std::unique_ptr<SlotKeeper> mSlots;
};

}  // namespace sd
