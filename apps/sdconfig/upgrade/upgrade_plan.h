// What a database holds that an upgrade would carry over, read without a trace.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace cli {

// A setting or a secure value of the earlier layout.
struct LegacyEntry {
    std::string name;
    std::size_t rows = 1;
    std::vector<std::string> lost;  // keys of rows that hold something that is not carried over
    bool replaces = false;          // secure_v3 has a row of that key
    std::string problem = {};       // why nothing of it can be kept; else ""
};

enum class UpgradeStep {
    Nothing,     // the version is the current one, or there is nothing to copy
    Stamp,       // a new database: it gets its version
    Copy,        // the store's own upgrade does it
    ForcedCopy,  // the store would leave it alone
    NeedsForce,  // as ForcedCopy, not asked for, while nothing was ever carried over
};

bool copies(UpgradeStep step);

struct UpgradePlan {
    std::string problem;                      // why the database can't be upgraded, for a person; else ""
    std::string next;                         // and what to do about it
    std::string version;                      // "": none
    std::map<std::string, std::size_t> rows;  // by table
    std::vector<LegacyEntry> settings;
    std::vector<LegacyEntry> secure;
    std::vector<std::string> nameless;  // keys in secure without an "@"
    UpgradeStep step = UpgradeStep::Nothing;

    std::size_t lostRows() const;
    std::size_t unfit() const;    // entries of which nothing can be kept
    std::size_t missing() const;  // names that secure_v3 lacks
};

// folder: the data folder, whose key ring the security layer knows already.
UpgradePlan planUpgrade(const std::string& folder, bool force);

}  // namespace cli
