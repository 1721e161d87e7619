// What stands in a data folder.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "src/sdconfig_sealed_row.h"

namespace apps {

struct DatabaseLayout {
    const char* file;
    const char* sealedTable;  // whose values are sealed
    const char* sealedName;   // what its rows are called
    std::vector<std::string> tables;
};

inline const DatabaseLayout kSecureLayout{
    sd::kConfigFile, sd::kSecureTable, "secure value", {"dbinfor", "config", "secure", sd::kSecureTable}};
inline const DatabaseLayout kPolicyLayout{sd::kPolicyFile, sd::kPolicyTable, "policy", {sd::kPolicyTable}};
inline const std::array kLayouts{&kSecureLayout, &kPolicyLayout};

inline constexpr char kRingFile[] = "sdsecurity.keys";

inline constexpr char kLockFile[] = "sdconfigd.lock";

// That the last service ended as told and its databases were whole (apps/sdconfigd/clean_end.h).
inline constexpr char kCleanEndFile[] = "sdconfigd.clean";

// What else stands there, or not, and is nobody else's business: how often keys have sealed, locks, the mark.
inline constexpr std::array kOtherFiles{"sdsecurity.count", "sdsecurity.lock", kLockFile, kCleanEndFile};

// What a service leaves in a folder that holds no data.
inline constexpr std::array kTraceFiles{kLockFile, kCleanEndFile};

// What SQLite keeps beside a database: its log and the log's index, or the journal of one that has no log.
inline constexpr std::array kDatabaseSuffixes{"-wal", "-shm", "-journal"};

}  // namespace apps
