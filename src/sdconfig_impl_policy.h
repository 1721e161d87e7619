// The policy store: device-management policies in dmhelper.db, and how they weigh against local secure values.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "base/sdconfig_export.h"
#include "base/sdconfig_types.h"
#include "sql/SQLiteDatabase.h"
#include "sql/SQLiteTable.h"

namespace sd {

// One policy a URI: a value and a priority, kept sealed. A local secure value counts as priority 5; a policy wins over
// it only with a priority above 5 (strong control), so a tie goes to the local value.
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

    // Stores the first entry of `policy` in place of what stood there, in one durable commit; any others are ignored. A
    // negative priority never reads back. The value's bytes up to the first zero byte are read as Latin-1 and kept as
    // UTF-8. False, with the row that stood there as it was, when the policy can't be sealed or stored, for an empty
    // map, for a URI that holds a zero byte or is longer than 64 KiB, and for a value longer than 16 MiB.
    bool SetPolicyWithUri(const std::string& uri, const PolicyMap& policy);

    // The policy as stored; empty when there is none or it can't be read.
    PolicyMap GetPolicyFromDMtable(const std::string& uri);

    // The effective value and its priority: the policy weighed against the local secure value. {"null_value", 5} when
    // there is neither.
    PolicyMap GetPolicyWithUri(const std::string& uri);

    // For the service, and not exported. Of a URI whose effective value is empty: whether it is that because the row
    // that decides, the policy's or the local secure value's, is there and can't be opened. And what has to be read to
    // tell the effective value: the sealed texts of both.
    [[gnu::visibility("hidden")]] bool isUnopenable(const std::string& uri);
    [[gnu::visibility("hidden")]] std::size_t storedBytes(const std::string& uri);

    // The same: GetAllKeys, but nothing where the values have more bytes together. Looks no further than that.
    [[gnu::visibility("hidden")]] std::optional<PolicyList> allKeysWithin(std::size_t bytes);

    // The same: the table of policies.
    [[gnu::visibility("hidden")]] data::SQLiteTable& sealedTable() { return mDmHelperTable; }

    // True for an absent policy too.
    bool DeletePolicyWithUri(const std::string& uri);

    // Whether the effective value comes from a policy that the local value can't override.
    bool isStrongControl(const std::string& uri);

    // Every stored URI with its policy, an empty map where it can't be read.
    PolicyList GetAllKeys();

    // Deletes all policies, in one durable commit; stops at the first that can't be deleted, with those before it gone.
    bool ClearAllKeys();

    std::string getValueFromDatabaseTable(data::SQLiteTable& table, const std::string& key);
    bool setValueToDatabaseTable(data::SQLiteTable& table, const std::string& key, const std::string& value);
    bool deleteValueFromDatabase(data::SQLiteTable& table, const std::string& key);

private:
    data::SQLiteDatabase mDatabase;
    data::SQLiteTable mDmHelperTable;
};

}  // namespace sd
