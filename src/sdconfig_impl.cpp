#include "src/sdconfig_impl.h"

#include <vector>

#include "base/sdconfig_types.h"
#include "base/text.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "platform/velmarlog/log_line.h"
#include "platform/velmarlog/log_secret.h"
#include "src/sdconfig_helpers.h"
#include "src/sdconfig_impl_policy.h"
#include "src/sdconfig_key_value_table.h"
#include "src/sdconfig_sealed_row.h"
#include "src/sdconfig_store_folder.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "src/sdconfig_impl";

constexpr char kVersionKey[] = "dbVersion";
constexpr char kReplacedKey[] = "replacedKey";
constexpr int kSlowSecureMs = 100;

}  // namespace

SDConfigImpl* SDConfigImpl::GetInstance() {
    static const std::string dbPath = storeFolder() + "/" + kConfigFile;
    static SDConfigImpl instance(dbPath);
    return &instance;
}

SDConfigImpl::SDConfigImpl(const std::string& dbPath)
    : SQLiteDatabase(dbPath),
      mDbInforTable(*this, "dbinfor"),
      mConfigTable(*this, "config"),
      mSecureTable(*this, "secure"),
      mSecureV3Table(*this, kSecureTable),
      mLatestVersion(kDatabaseVersion) {
    LOG(5, AT "sdconfig db path=%s", HERE, dbPath.c_str());
    LOG(5, AT "start init DB", HERE);
    initDB();
    LOG(5, AT "start upgrade DB", HERE);
    upgradeDB();
}

SDConfigImpl::~SDConfigImpl() = default;

bool SDConfigImpl::initDB() {
    const bool config = initConfigTable();
    if (!config) LOG(7, AT "failed to init config", HERE);
    const bool secure = initSecureTable();
    if (!secure) LOG(7, AT "failed to init secure", HERE);
    const bool dbInfor = initDBInforTable();
    if (!dbInfor) LOG(7, AT "failed to init upgrade table", HERE);

    const bool succeeded = config && secure && dbInfor;
    LOG(5, AT "init DB result: %s", HERE, succeeded ? "succeed" : "failed");
    return succeeded;
}

bool SDConfigImpl::initDBInforTable() {
    return key_value::create(mDbInforTable);
}

bool SDConfigImpl::initConfigTable() {
    return key_value::create(mConfigTable);
}

bool SDConfigImpl::initSecureTable() {
    const bool legacy = key_value::create(mSecureTable);
    const bool current = key_value::create(mSecureV3Table);
    return legacy && current;
}

bool SDConfigImpl::upgradeDB() {
    if (!isNewInstall()) return true;
    LOG(5, AT "new install, don't need upgrade.", HERE);
    return setDBVersion(mDbInforTable, mLatestVersion);
}

bool SDConfigImpl::isNewInstall() {
    return key_value::isEmpty(mSecureV3Table);
}

std::string SDConfigImpl::getDBVersion(data::SQLiteTable& table) {
    return getValueFromDatabaseTable(table, kVersionKey);
}

bool SDConfigImpl::setDBVersion(data::SQLiteTable& table, std::string version) {
    return key_value::replace(table, kVersionKey, version, [&] { deleteValueFromDatabase(table, kVersionKey); });
}

unsigned int SDConfigImpl::getTableRecordCount(data::SQLiteTable& table) {
    return static_cast<unsigned int>(key_value::count(table));
}

std::string SDConfigImpl::getValueFromDatabaseTable(data::SQLiteTable& table, const std::string& key) {
    return key_value::get(table, key);
}

bool SDConfigImpl::setValueToDatabaseTable(data::SQLiteTable& table, const std::string& key, const std::string& value) {
    return key_value::set(table, key, value);
}

bool SDConfigImpl::deleteValueFromDatabase(data::SQLiteTable& table, const std::string& key) {
    return key_value::remove(table, key);
}

bool SDConfigImpl::SetSecure(const std::string& key, const std::string& value) {
    const Stopwatch watch;
    const bool stored = SetSecure_v3(key, value);
    if (const int ms = watch.elapsedMs(); ms >= kSlowSecureMs)
        LOG(6, AT "SetSecure %s takes %d ms", HERE, key.c_str(), ms);
    return stored;
}

bool SDConfigImpl::SetSecure_v3(const std::string& key, const std::string& value) {
    if (const char* problem = keepingProblem(key, value)) {
        LOG(7, AT "the key %s %s", HERE, key.c_str(), problem);
        return false;
    }
    if (!mSecureV3Table.isInPlace()) return false;  // nor is a key ring made in a folder that isn't ours any more
    const std::string utf8Value = latin1ToUtf8(value);
    // Sealed before anything is locked: neither another process nor a key ring that can't be used has to wait for it.
    const auto encrypted = sealedText(secureRow(key), utf8Value);
    if (!encrypted) {
        LOG(7, AT "encryption failed, the key is %s", HERE, key.c_str());
        return false;
    }
    return key_value::replace(mSecureV3Table, key, *encrypted, [&] {
        DeleteSecure_v3(key);
        if (isIdentityKey(key))
            LOG(5, AT "key is %s, utf8Value is %s, encrypted is %s", HERE_AS("SetSecure_v3"), key.c_str(),
                SECRET(utf8Value), SECRET(*encrypted));
    });
}

std::string SDConfigImpl::GetSecure(const std::string& key) {
    return GetSecure(key, nullptr);
}

std::string SDConfigImpl::GetSecure(const std::string& key, PolicyLayers* layers) {
    const Stopwatch watch;
    PolicyMap policy = SDConfigDmHelper::GetInstance().GetPolicyWithUri(key, layers);
    std::string value;
    if (policy.size() == 1 && policy.begin()->first != kNullValue)
        value = std::move(policy.extract(policy.begin()).key());  // not a copy of what may be 16 MiB
    if (const int ms = watch.elapsedMs(); ms >= kSlowSecureMs)
        LOG(6, AT "GetSecure %s takes %d ms", HERE, key.c_str(), ms);
    return value;
}

std::string SDConfigImpl::GetSecure_v3(const std::string& key) {
    const std::string encrypted = getValueFromDatabaseTable(mSecureV3Table, key);
    if (encrypted.empty()) return "";
    std::string value = openForRow(secureRow(key), encrypted);
    if (isIdentityKey(key))
        LOG(5, AT "key is %s, encrypted is %s, value is %s", HERE, key.c_str(), SECRET(encrypted), SECRET(value));
    return value;
}

bool SDConfigImpl::DeleteSecure(const std::string& key) {
    return DeleteSecure_v3(key);
}

bool SDConfigImpl::DeleteSecure_v3(const std::string& key) {
    if (getValueFromDatabaseTable(mSecureV3Table, key).empty()) {
        if (isIdentityKey(key)) LOG(5, AT "key is %s", HERE, key.c_str());
        return true;
    }
    return deleteValueFromDatabase(mSecureV3Table, key);
}

std::size_t SDConfigImpl::storedBytes_v3(const std::string& key) {
    return getValueFromDatabaseTable(mSecureV3Table, key).size();
}

std::string SDConfigImpl::openedValue_v3(const std::string& key) {
    const std::string encrypted = getValueFromDatabaseTable(mSecureV3Table, key);
    return encrypted.empty() ? "" : openForRow(secureRow(key), encrypted);
}

std::string SDConfigImpl::replacedKey() {
    return getValueFromDatabaseTable(mDbInforTable, kReplacedKey);
}

bool SDConfigImpl::setReplacedKey(const std::string& keyId) {
    return keyId.empty() ? deleteValueFromDatabase(mDbInforTable, kReplacedKey)
                         : setValueToDatabaseTable(mDbInforTable, kReplacedKey, keyId);
}

bool SDConfigImpl::isKeyInDB(std::string key) {
    return key_value::hasKey(mSecureV3Table, key);
}

std::string SDConfigImpl::GetConst(const std::string& name) {
    return SDSecurity::GetInstance()->GetString(name);
}

std::string SDConfigImpl::SignRequest(const std::string& request) {
    return request;
}

bool SDConfigImpl::VerifyRequest(const std::string& /*request*/, const std::string& /*signature*/) {
    return true;
}

}  // namespace sd
