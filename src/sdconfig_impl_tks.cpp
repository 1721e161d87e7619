#include "src/sdconfig_impl_tks.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>

#include "platform/velmarlog/log_line.h"
#include "sdtks/sdtks.h"
#include "src/sdconfig_helpers.h"
#include "src/sdconfig_key_value_table.h"
#include "src/sdconfig_legacy_piece.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "src/sdconfig_impl_tks";

constexpr char kClientId[] = "velmar.client.id";
constexpr std::size_t kPieceSize = 32;

// Larger than the longest deciphered text.
constexpr std::size_t kPieceBuffer = 256;
constexpr std::size_t kBuiltInBuffer = 128;

// How far a copy came. What can't be kept does not keep the rest from being copied; a store that fails does.
enum class Copied { All, WhatCanBeKept, NotAll };

// 0 for what is no number.
long versionNumber(const std::string& version) {
    return std::strtol(version.c_str(), nullptr, 10);
}

bool keysToCopy(data::SQLiteTable& table, const char* caller, std::vector<std::string>& keys) {
    if (!key_value::keys(table, keys)) {
        LOG(7, AT "upgrade failed, get keyList error", HERE_AS(caller));
        return false;
    }
    for (const std::string& key : keys) LOG(5, AT "key = %s", HERE_AS(caller), key.c_str());
    return true;
}

// source: the key of the row that the log names.
Copied copyValue(SDConfigImplTKS& store, const std::string& key, const std::string& value, const char* caller,
                 const std::string& source) {
    if (store.SetSecure_v3(key, value)) return Copied::All;
    LOG(7, AT "upgrade failed, key = %s", HERE_AS(caller), source.c_str());
    return keepingProblem(key, value) ? Copied::WhatCanBeKept : Copied::NotAll;
}

Copied copySettings(SDConfigImplTKS& store, data::SQLiteTable& config) {
    constexpr char kCaller[] = "upgradeConfig_to3";
    LOG(5, AT "upgrade config to 3.", HERE_AS(kCaller));
    std::vector<std::string> keys;
    if (!keysToCopy(config, kCaller, keys)) return Copied::NotAll;
    Copied result = Copied::All;
    for (const std::string& key : keys) {
        result = std::max(result, copyValue(store, key, store.GetConfig_v2(key), kCaller, key));
        if (result == Copied::NotAll) break;
    }
    return result;
}

Copied copySecureValues(SDConfigImplTKS& store, const std::vector<std::string>& keys) {
    constexpr char kCaller[] = "upgradeSecure_to3";
    Copied result = Copied::All;
    std::set<std::string> handled;
    for (const std::string& key : keys) {
        LOG(5, AT "before strip key = %s", HERE_AS(kCaller), key.c_str());
        const std::size_t at = key.find('@');
        if (at == std::string::npos) {
            LOG(6, AT "key %s, format is not right", HERE_AS(kCaller), key.c_str());
            continue;
        }
        const std::string name = key.substr(0, at);
        if (!handled.insert(name).second) continue;
        const std::string value = store.SDTksGetSecure(name);
        if (value.empty()) LOG(6, AT "key = %s, value is empty", HERE_AS(kCaller), key.c_str());
        result = std::max(result, copyValue(store, name, value, kCaller, key));
        if (result == Copied::NotAll) break;
    }
    return result;
}

// Without its library the cipher takes every value for an empty one, and the upgrade would end as one that succeeded.
bool hasCipher() {
    return !SDTks::Encrypt("any").empty();
}

// The client's identifier decides where there is one: that it could be copied makes up for a value that could not.
bool copyClientId(SDConfigImplTKS& store, bool result) {
    constexpr char kCaller[] = "upgradeSecure_to3";
    const std::string value = store.GetConfig_v2(kClientId);
    if (value.empty()) return result;
    // Those who read logs know the line by these words, though the value is anything but empty.
    LOG(6, AT "velmar.client.id's value is empty", HERE_AS(kCaller));
    if (store.SetSecure_v3(kClientId, value)) return true;
    LOG(7, AT "upgrade failed, key = velmar.client.id", HERE_AS(kCaller));
    return false;
}

// The secure values follow the settings unless the store itself failed.
bool copyEverything(SDConfigImplTKS& store, data::SQLiteTable& config) {
    const Copied settings = copySettings(store, config);
    const bool secure = settings != Copied::NotAll && store.upgradeSecure_to3();
    return secure && settings == Copied::All;
}

}  // namespace

SDConfigImplTKS::SDConfigImplTKS(const std::string& dbPath) : SDConfigImpl(dbPath) {
    LOG(5, AT "sdconfig db path=%s", HERE, dbPath.c_str());
    LOG(5, AT "start upgrade DB", HERE);
    upgradeDB();
}

SDConfigImplTKS::~SDConfigImplTKS() = default;

bool SDConfigImplTKS::isNewInstall() {
    return getTableRecordCount(mConfigTable) == 0 && getTableRecordCount(mSecureTable) == 0 &&
           getTableRecordCount(mSecureV3Table) == 0;
}

bool SDConfigImplTKS::upgradeDB() {
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    const auto start = std::chrono::system_clock::now();
    const std::string version = getDBVersion(mDbInforTable);
    bool result = false;
    if (isNewInstall()) {
        LOG(5, AT "new install, don't need upgrade.", HERE);
        result = setDBVersion(mDbInforTable, mLatestVersion);
    } else if (versionNumber(version) >= versionNumber(mLatestVersion)) {
        return true;
    } else {
        LOG(5, AT "latestDBVersion=%s, upgradeDbVersion=%s", HERE, mLatestVersion.c_str(), version.c_str());
        LOG(5, AT "upgrade from 1 to 3", HERE);
        const bool copied = copyEverything(*this, mConfigTable);
        if (!copied) LOG(7, AT "upgrade from 1 to 3 failed", HERE);
        result = copied && setDBVersion(mDbInforTable, mLatestVersion);
    }
    const std::chrono::duration<double> elapsed = std::chrono::system_clock::now() - start;
    LOG(5, AT "upgradeDB takes %.4lf s", HERE, elapsed.count());
    LOG(5, AT "after upgrade, current db version : %s", HERE, getDBVersion(mDbInforTable).c_str());
    return result;
}

bool SDConfigImplTKS::upgradeConfig_to3() {
    return copySettings(*this, mConfigTable) == Copied::All;
}

bool SDConfigImplTKS::upgradeSecure_to3() {
    LOG(5, AT "upgrade secure to 3.", HERE);
    std::vector<std::string> keys;
    if (!keysToCopy(mSecureTable, __func__, keys)) return false;
    if (!hasCipher()) return false;
    return copyClientId(*this, copySecureValues(*this, keys) == Copied::All);
}

std::string SDConfigImplTKS::GetConfig_v2(const std::string& key) {
    return getValueFromDatabaseTable(mConfigTable, key);
}

bool SDConfigImplTKS::SetConfig_v2(const std::string& key, const std::string& value) {
    return setValueToDatabaseTable(mConfigTable, key, value);
}

bool SDConfigImplTKS::DeleteConfig_v2(const std::string& key) {
    return deleteValueFromDatabase(mConfigTable, key);
}

bool SDConfigImplTKS::SetSecure_v2(const std::string& name, const std::string& value) {
    DeleteSecure_v2(name);
    SDTksSetSecure(name, value);
    return true;
}

std::string SDConfigImplTKS::GetSecure_v2(const std::string& name) {
    return SDTksGetSecure(name);
}

bool SDConfigImplTKS::DeleteSecure_v2(const std::string& name) {
    bool result = true;
    for (int piece = 0; piece < kMaxLegacyPieces; ++piece) {
        const std::string key = legacyPieceKey(name, piece);
        if (getValueFromDatabaseTable(mSecureTable, key).empty()) break;
        result = deleteValueFromDatabase(mSecureTable, key) && result;
    }
    return result;
}

bool SDConfigImplTKS::SDTksSetSecure(const std::string& name, const std::string& value) {
    int piece = 0;
    for (std::size_t at = 0; at < value.size(); at += kPieceSize)
        setValueToDatabaseTable(mSecureTable, legacyPieceKey(name, piece++),
                                SDTks::Encrypt(value.substr(at, kPieceSize)));
    return true;
}

std::string SDConfigImplTKS::SDTksGetSecure(const std::string& name) {
    std::string value = getSecureFromDatabase(name);
    if (!value.empty()) return value;
    std::string builtIn = SDTks::GetKey(name);
    if (builtIn.empty()) return "";
    std::array<char, kBuiltInBuffer> text{};
    if (SDTks::Decrypt(builtIn.data(), text.data(), static_cast<int>(text.size())) == 0) return "";
    return std::string(text.data(), ::strnlen(text.data(), text.size()));
}

std::string SDConfigImplTKS::getSecureFromDatabase(const std::string& name) {
    std::string value;
    for (int piece = 0; piece < kMaxLegacyPieces; ++piece) {
        std::string stored = getValueFromDatabaseTable(mSecureTable, legacyPieceKey(name, piece));
        if (stored.empty()) break;
        std::array<char, kPieceBuffer> text{};
        if (SDTks::Decrypt(stored.data(), text.data(), static_cast<int>(text.size())) == 0) break;
        value += text.data();
    }
    return value;
}

std::string SDConfigImplTKS::SignRequest(const std::string& request) {
    return request;
}

bool SDConfigImplTKS::VerifyRequest(const std::string& /*request*/, const std::string& /*signature*/) {
    return true;
}

}  // namespace sd
