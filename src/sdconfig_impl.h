// The configuration store: plain and secure values in sdconfig.db, constants and request signing.
#pragma once

#include <cstddef>
#include <string>

#include "base/sdconfig_export.h"
#include "sql/SQLiteDatabase.h"
#include "sql/SQLiteTable.h"
#include "src/sdconfig_key_classes.h"

namespace sd {

struct PolicyLayers;

// The object is itself the connection to sdconfig.db, with four tables of one form (id, key, value):
//   dbinfor    the file's own version, under "dbVersion"; "replacedKey" while all is being sealed anew
//   config     plain settings
//   secure     secure values in the form of earlier versions; only the upgrade reads it
//   secure_v3  secure values, sealed by the security layer
// Keys compare without regard to letter case, but for isKeyInDB.
//
// The service uses it on its own thread, one call at a time; it takes no lock. Other processes may hold the file too.
// Failures are false, 0 or "", with log lines; GetSecure alone can throw: what the policy store lets through. An absent
// key and an empty value both read as "".
class SDCONFIG_API SDConfigImpl : public data::SQLiteDatabase {
public:
    // The process's store in the data folder (SDConfig::setDataPath), opened on first use and kept to the end.
    static SDConfigImpl* GetInstance();

    // Opens the file, creates what is missing and stamps a new one with the current version. A file that can't be
    // opened is not fatal: every operation on it then fails.
    explicit SDConfigImpl(const std::string& dbPath);
    ~SDConfigImpl();

    // Writes the value sealed, in place of what stood there, in one durable commit. The bytes up to the first zero byte
    // are read as Latin-1 and kept as UTF-8, so that a non-ASCII value reads back in that doubled form. An empty value
    // is kept as an empty row. False, with the row that stood there as it was, when the value can't be sealed or stored
    // or is longer than 16 MiB, and when the key holds a zero byte or is longer than 64 KiB.
    bool SetSecure(const std::string& key, const std::string& value);

    // The effective value: what the policy store makes of the key's policy and the stored value.
    std::string GetSecure(const std::string& key);

    // For the service, and not exported. The same, and where `layers` is not null what it was made of.
    [[gnu::visibility("hidden")]] std::string GetSecure(const std::string& key, PolicyLayers* layers);

    // True for an absent key too.
    bool DeleteSecure(const std::string& key);

    // The stored value itself, and the writers behind the three operations above.
    bool SetSecure_v3(const std::string& key, const std::string& value);
    std::string GetSecure_v3(const std::string& key);
    bool DeleteSecure_v3(const std::string& key);

    // For the service, and not exported. How long the text is that secure_v3 has for the key, sealed as it stands.
    [[gnu::visibility("hidden")]] std::size_t storedBytes_v3(const std::string& key);

    // The same: GetSecure_v3 without its line about an identity key.
    [[gnu::visibility("hidden")]] std::string openedValue_v3(const std::string& key);

    // The same: the table of secure values; and the key under which all of both stores is being sealed anew, "" for
    // none.
    [[gnu::visibility("hidden")]] data::SQLiteTable& sealedTable() { return mSecureV3Table; }
    [[gnu::visibility("hidden")]] std::string replacedKey();
    [[gnu::visibility("hidden")]] bool setReplacedKey(const std::string& keyId);

    // Whether secure_v3 has a row of exactly this key, letter case included, empty or not.
    bool isKeyInDB(std::string key);

    // A constant of the security layer.
    std::string GetConst(const std::string& name);

    // The request itself: this client adds no signature; and true, whatever is asked.
    std::string SignRequest(const std::string& request);
    bool VerifyRequest(const std::string& request, const std::string& signature);

    // Creates the tables that are missing; each is attempted. False when one could not be.
    bool initDB();
    bool initDBInforTable();
    bool initConfigTable();
    bool initSecureTable();

    // Stamps the file with the current version while secure_v3 is empty.
    bool upgradeDB();
    bool isNewInstall();  // whether secure_v3 is empty, or can't be read
    std::string getDBVersion(data::SQLiteTable& table);
    bool setDBVersion(data::SQLiteTable& table, std::string version);  // in place of the old one, in one commit

    // One key of any table of the file. A write replaces the row of the same key and takes its letter case over;
    // deleting an absent key succeeds.
    unsigned int getTableRecordCount(data::SQLiteTable& table);
    std::string getValueFromDatabaseTable(data::SQLiteTable& table, const std::string& key);
    bool setValueToDatabaseTable(data::SQLiteTable& table, const std::string& key, const std::string& value);
    bool deleteValueFromDatabase(data::SQLiteTable& table, const std::string& key);

protected:
    data::SQLiteTable mDbInforTable;
    data::SQLiteTable mConfigTable;
    data::SQLiteTable mSecureTable;
    data::SQLiteTable mSecureV3Table;
    std::string mReserved;  // always empty
    std::string mLatestVersion;
};

}  // namespace sd
