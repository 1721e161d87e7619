// The policy store: device-management policies in dmhelper.db, and how they weigh against local secure values.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/sdconfig_export.h"
#include "base/sdconfig_types.h"
#include "sql/SQLiteDatabase.h"
#include "sql/SQLiteTable.h"

namespace sd {

class MachinePolicies;

// What a URI's effective value is made of.
struct PolicyLayers {
    PolicyMap policy{};                  // the machine's, or the stored one
    bool isGoverned = false;             // it is the machine's
    std::optional<std::string> local{};  // the secure value; not looked at where the machine's policy is strong
};

// One policy a URI: a value and a priority, kept sealed. A local secure value counts as priority 5; a policy wins over
// it only with a priority above 5 (strong control), so a tie goes to the local value.
//
// Beside those that are stored here there may be the machine's policies, of files in its policy folders. They weigh as
// the others do; where a URI has both, the machine's counts, whatever the priority of the other, and the stored one can
// be neither set nor deleted by its URI.
//
// Policy maps that come back hold at most one entry; an empty value stands in them as "null_value". URIs compare
// without regard to letter case. Nothing is cached.
//
// The service uses it on its own thread, one call at a time; it takes no lock. Failures are false or an empty map, with
// log lines; only a stored priority that is empty or beyond an int raises an exception (std::invalid_argument,
// std::out_of_range) out of the operations that read it.
class SDCONFIG_API SDConfigDmHelper {
public:
    // The process's store in the data folder, opened on first use and kept to the end.
    static SDConfigDmHelper& GetInstance();

    // Opens the file and creates the table if it is missing. A file that can't be opened is not fatal: every operation
    // then fails.
    explicit SDConfigDmHelper(const std::string& path);
    ~SDConfigDmHelper();
    SDConfigDmHelper(const SDConfigDmHelper&) = delete;
    SDConfigDmHelper& operator=(const SDConfigDmHelper&) = delete;

    bool initDB();
    bool initDMTable();

    // The folders of the machine's policies, absolute paths, for a host that goes by others than sdconfigd does; none
    // for no such policies. What root or the process's user has made there is trusted. To be told before the service is
    // started, which reads them then and whenever they change.
    static void SetMachinePolicyFolders(std::vector<std::string> folders);

    // For the service, and not exported. The folders that were told, nothing where none were; and the policies that
    // count in this process, null for none.
    [[gnu::visibility("hidden")]] static const std::optional<std::vector<std::string>>& machinePolicyFolders();
    [[gnu::visibility("hidden")]] static void useMachinePolicies(std::shared_ptr<const MachinePolicies> policies);
    [[gnu::visibility("hidden")]] static const std::shared_ptr<const MachinePolicies>& machinePolicies();

    // Stores the first entry of `policy` in place of what stood there, in one durable commit; any others are ignored. A
    // negative priority never reads back. The value's bytes up to the first zero byte are read as Latin-1 and kept as
    // UTF-8. False, with the row that stood there as it was, when the policy can't be sealed or stored, for an empty
    // map, for a URI that holds a zero byte or is longer than 64 KiB, for a value longer than 16 MiB, and for a URI
    // that a policy of the machine governs.
    bool SetPolicyWithUri(const std::string& uri, const PolicyMap& policy);

    // The policy as stored; empty when there is none or it can't be read.
    PolicyMap GetPolicyFromDMtable(const std::string& uri);

    // The effective value and its priority: the policy weighed against the local secure value. {"null_value", 5} when
    // there is neither.
    PolicyMap GetPolicyWithUri(const std::string& uri);

    // For the service, and not exported. The same, and where `layers` is not null what it was made of.
    [[gnu::visibility("hidden")]] PolicyMap GetPolicyWithUri(const std::string& uri, PolicyLayers* layers);
    // The same, had the machine these policies.
    [[gnu::visibility("hidden")]] PolicyMap effectiveUnder(const MachinePolicies* machine, const std::string& uri,
                                                           PolicyLayers* layers = nullptr);

    // The same. What a URI's effective value is made of, without a line about what is wrong with it; what layers have
    // for their effective value, where `hasRow` tells whether there is a local value, an empty one included; and a
    // policy as it reads back once it is stored.
    [[gnu::visibility("hidden")]] PolicyLayers layersOf(const std::string& uri);
    [[gnu::visibility("hidden")]] static PolicyMap effectiveOf(PolicyLayers layers,
                                                               const std::function<bool()>& hasRow);
    [[gnu::visibility("hidden")]] static PolicyMap asStored(const PolicyMap& policy);

    // The same. Of a URI whose effective value is empty: whether it is that because the row
    // that decides, the policy's or the local secure value's, is there and can't be opened. And what has to be read to
    // tell the effective value: the sealed texts of both.
    [[gnu::visibility("hidden")]] bool isUnopenable(const std::string& uri);
    [[gnu::visibility("hidden")]] std::size_t storedBytes(const std::string& uri);

    // The same: GetAllKeys, but nothing where the values have more bytes together. Looks no further than that.
    [[gnu::visibility("hidden")]] std::optional<PolicyList> allKeysWithin(std::size_t bytes);

    // The same: ClearAllKeys, which tells of each URI before its policy is deleted; and whether a URI has a stored one.
    [[gnu::visibility("hidden")]] bool ClearAllKeys(const std::function<void(const std::string&)>& deleting);
    [[gnu::visibility("hidden")]] bool isStored(const std::string& uri);

    // The same: the table of policies.
    [[gnu::visibility("hidden")]] data::SQLiteTable& sealedTable() { return mDmHelperTable; }

    // True for an absent policy too; false where a policy of the machine governs the URI.
    bool DeletePolicyWithUri(const std::string& uri);

    // Whether the effective value comes from a policy that the local value can't override.
    bool isStrongControl(const std::string& uri);

    // Every URI that has a policy, stored or the machine's, with the one that counts; an empty map where a stored one
    // can't be read.
    PolicyList GetAllKeys();

    // Deletes all stored policies, also those of URIs that the machine's govern, in one durable commit; stops at the
    // first that can't be deleted, with those before it gone.
    bool ClearAllKeys();

    std::string getValueFromDatabaseTable(data::SQLiteTable& table, const std::string& key);
    bool setValueToDatabaseTable(data::SQLiteTable& table, const std::string& key, const std::string& value);
    bool deleteValueFromDatabase(data::SQLiteTable& table, const std::string& key);

private:
    [[gnu::visibility("hidden")]] bool deleteStored(const std::string& uri);

    data::SQLiteDatabase mDatabase;
    data::SQLiteTable mDmHelperTable;
};

}  // namespace sd
