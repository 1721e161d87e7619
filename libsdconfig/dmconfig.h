// The device-management facade: policies, and callbacks for changed keys.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "base/sdconfig_export.h"
#include "base/sdconfig_types.h"

namespace sd {

// Policies are values that govern a URI (a configuration key) with a priority; one above 5 overrides the local secure
// value, which is strong control. Like SDConfig's, every operation is one synchronous call to the service, of at most
// 5000 ms, that logs a level-7 line and returns its failure value, false or an empty map, when it fails. Nothing
// throws.
//
// Counts and priorities travel as signed 8-bit integers and are cut to that: send at most 122 elements at once (the
// service takes no more) and priorities from 0 to 127.
//
// Any thread may call any operation, from a listener too, and so may a forked child. The child begins without
// listeners: its parent's are called in the parent alone. From exit() on no listener is called; one that runs is waited
// for, 5000 ms at most.
class SDCONFIG_API DMConfig {
public:
    // What a caller implements to hear of changes.
    class SDCONFIG_API Listener {
    public:
        virtual ~Listener();

        // A change of the key: its new value and, where the key's latest registration asked for that, whether a policy
        // controls it now. Runs on the bus layer's event thread; it may call any operation of the facades. What it
        // throws is logged.
        virtual void onChanged(const std::string& key, const std::string& value, bool flag) = 0;
    };
    using ListenerList = std::map<std::string, Listener*>;

    static DMConfig* GetInstance();

    // Sets a policy: a map of one entry, the value to its priority. False, with nothing sent, for any other map. URIs
    // and values have the limits of secure values (sdconfig.h).
    bool SetPolicyWithUri(const std::string& uri, const PolicyMap& policy);

    // Sets a list of policies, each a map of one entry. Returns whether the last one was stored.
    bool SetPolicyList(const PolicyList& policies);

    // The effective value and its priority; the value "null_value" says that there is none.
    PolicyMap GetPolicyWithUri(const std::string& uri);

    // The same for several URIs; sets their entries in *policies and keeps its others. False for a null pointer,
    // silently, and for no URIs.
    bool GetPoliciesWithUris(const std::vector<std::string>& uris, PolicyList* policies);

    // The stored policies, the first 122 of them in the order of their URIs; sets their entries in *policies.
    bool GetAllKeys(PolicyList* policies);

    bool DeletePolicyWithUri(const std::string& uri);  // deleting an absent policy succeeds
    bool ClearAllKeys();

    // Whether a policy controls the key, so that setting it locally has no effect.
    bool isStrongControl(const std::string& key);

    // Calls `listener`, which stays the caller's and has to live until it is unregistered, when the key changes. flag:
    // whether to be told of strong control. Keys compare exactly. Each registration of a listener is one call of it.
    //
    // False, with a level-7 line and nothing sent, without a listener; in a list, for any that is null.
    //
    // The service is told of a key once a process. It counts registrations per key over all processes, and forgets them
    // when it restarts: docs/listeners.md shows how to outlive that.
    bool RegisterListener(const std::string& key, Listener* listener, bool flag);

    // Takes one registration back. When it returns, the listener is not running any more (unless it is the listener
    // that calls, or it takes longer than 5000 ms). False when there was no such registration or the service did not
    // agree; the listener is gone all the same.
    bool UnRegisterListener(const std::string& key, Listener* listener, bool flag);

    // Registers several keys in one call, whatever is registered already.
    bool RegisterListenersWithList(const ListenerList& listeners, bool flag);

    // Whether the service has a live registration, of whatever process, for every one of the keys.
    bool IsAllConfigsAlreadyListened(const std::vector<std::string>& keys);

    DMConfig(const DMConfig&) = delete;
    DMConfig& operator=(const DMConfig&) = delete;

private:
    DMConfig() = default;
};

}  // namespace sd
