#include "apps/sdconfig/upgrade/upgrade_plan.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <numeric>
#include <set>

#include "apps/data/data_files.h"
#include "apps/data/database_check.h"
#include "apps/data/table_reader.h"
#include "apps/sdconfig/terminal/messages.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "sdtks/sdtks.h"
#include "src/sdconfig_helpers.h"
#include "src/sdconfig_legacy_piece.h"

namespace cli {

namespace {

using apps::Row;

// As the tables compare their keys.
struct IgnoreCase {
    bool operator()(const std::string& a, const std::string& b) const { return ::strcasecmp(a.c_str(), b.c_str()) < 0; }
};
using Values = std::map<std::string, std::string, IgnoreCase>;

Values valuesOf(const std::vector<Row>& rows) {
    Values values;
    for (const Row& row : rows) values.emplace(row.key, row.value);
    return values;
}

bool hasZeroByte(const std::string& text) {
    return text.find('\0') != std::string::npos;
}

// A key that the store would take for another one, or for none.
std::string unfitKey(const std::string& database, const std::string& table, const std::vector<Row>& rows) {
    // A key of the earlier layout that begins with an "@" was sealed under the empty name.
    const bool emptyFits = table == "secure_v3";
    const auto unfit = [&](const Row& row) { return (row.key.empty() && !emptyFits) || hasZeroByte(row.key); };
    if (std::none_of(rows.begin(), rows.end(), unfit)) return "";
    return "the table " + table + " of " + database + " has a row whose key is no text, or an empty one";
}

// Whether the store reads the piece whole: of its plain text it takes what stands before a zero byte.
bool readsWhole(std::string text) {
    std::array<char, 256> plain{};
    if (hasZeroByte(text)) return false;
    if (sd::SDTks::Decrypt(text.data(), plain.data(), static_cast<int>(plain.size())) != 1) return false;
    const auto* const end = std::find(plain.begin(), plain.end(), '\0');
    return std::all_of(end, plain.cend(), [](char c) { return c == '\0'; });
}

// The rows of `keys`, those of one value, that the store does not reach or can't decipher.
std::vector<std::string> lostPieces(const std::string& name, std::vector<std::string> keys, const Values& secure) {
    if (name.empty()) return keys;  // it is sealed where nobody can ask for it
    std::set<std::string, IgnoreCase> read;
    for (int piece = 0; piece < sd::kMaxLegacyPieces; ++piece) {
        const auto row = secure.find(sd::legacyPieceKey(name, piece));
        if (row == secure.end() || row->second.empty()) break;
        // The keys of a name of 252 bytes and more are cut and then alike: its value comes out as repetitions.
        if (read.count(row->first) > 0) return keys;
        if (readsWhole(row->second)) read.insert(row->first);
    }
    const auto carriedOver = [&](const std::string& key) { return read.count(key) > 0 || secure.at(key).empty(); };
    keys.erase(std::remove_if(keys.begin(), keys.end(), carriedOver), keys.end());
    return keys;
}

void planSettings(const std::vector<Row>& config, const Values& sealed, UpgradePlan& plan) {
    for (const Row& row : config) {
        LegacyEntry entry{row.key, 1, {}, sealed.count(row.key) > 0};
        if (const char* const problem = sd::keepingProblem(row.key, row.value)) entry.problem = problem;
        if (hasZeroByte(row.value) || !entry.problem.empty()) entry.lost.push_back(row.key);
        plan.settings.push_back(std::move(entry));
    }
}

void planSecure(const std::vector<Row>& rows, const Values& sealed, UpgradePlan& plan) {
    const Values secure = valuesOf(rows);
    std::vector<std::string> names;
    std::map<std::string, std::vector<std::string>> keys;  // by name
    for (const Row& row : rows) {
        const std::size_t at = row.key.find('@');
        if (at == std::string::npos) {
            plan.nameless.push_back(row.key);
            continue;
        }
        std::vector<std::string>& ofName = keys[row.key.substr(0, at)];
        if (ofName.empty()) names.push_back(row.key.substr(0, at));
        ofName.push_back(row.key);
    }
    for (const std::string& name : names) {
        LegacyEntry entry{name, keys[name].size(), lostPieces(name, keys[name], secure), sealed.count(name) > 0};
        if (const char* const problem = sd::keepingProblem(name, "")) {
            entry.problem = problem;
            entry.lost = keys[name];
        }
        plan.secure.push_back(std::move(entry));
    }
}

template <class Condition>
std::size_t countEntries(const UpgradePlan& plan, Condition condition) {
    return static_cast<std::size_t>(std::count_if(plan.settings.begin(), plan.settings.end(), condition) +
                                    std::count_if(plan.secure.begin(), plan.secure.end(), condition));
}

UpgradeStep nextStep(const UpgradePlan& plan, bool force) {
    const bool current =
        std::strtol(plan.version.c_str(), nullptr, 10) >= std::strtol(sd::kDatabaseVersion, nullptr, 10);
    const bool legacy = plan.rows.at("config") + plan.rows.at("secure") > 0;
    const bool sealed = plan.rows.at("secure_v3") > 0;
    if (sealed && !current) return UpgradeStep::Copy;
    if (!legacy) return sealed || current ? UpgradeStep::Nothing : UpgradeStep::Stamp;
    if (force) return UpgradeStep::ForcedCopy;
    return sealed ? UpgradeStep::Nothing : UpgradeStep::NeedsForce;
}

bool anySealed(const std::vector<Row>& rows) {
    return std::any_of(rows.begin(), rows.end(), [](const Row& row) { return !row.value.empty(); });
}

// A ring that the first seal would make beside values that are sealed with another one would hide that the other is
// missing. One that is locked seals nothing. next: what to do about it.
std::string ringProblem(const std::string& folder, bool sealedValues, std::string& next) {
    using State = sd::SDSecurity::KeyRingState;
    const std::string policies = folder + "/" + apps::kPolicyLayout.file;
    if (std::filesystem::exists(policies)) {
        apps::Tables tables = apps::readTables(policies, apps::kPolicyLayout.tables);
        if (!tables.problem.empty()) return tables.problem;
        sealedValues = sealedValues || anySealed(tables.rows[apps::kPolicyLayout.sealedTable]);
    }
    const auto ring = sd::SDSecurity::GetInstance()->CheckKeyRing();
    if (const auto locked = apps::lockedRing(folder, ring)) {
        next = locked->next;
        return locked->what;
    }
    if (ring.state == State::Broken) return "the key ring can't be used: " + ring.detail;
    if (ring.state == State::Absent && sealedValues)
        return "there are sealed values but the key ring is missing, " + ring.detail;
    return "";
}

}  // namespace

bool copies(UpgradeStep step) {
    return step == UpgradeStep::Copy || step == UpgradeStep::ForcedCopy;
}

std::size_t UpgradePlan::lostRows() const {
    const auto add = [](std::size_t sum, const LegacyEntry& entry) { return sum + entry.lost.size(); };
    return std::accumulate(secure.begin(), secure.end(),
                           std::accumulate(settings.begin(), settings.end(), nameless.size(), add), add);
}

std::size_t UpgradePlan::unfit() const {
    return countEntries(*this, [](const LegacyEntry& entry) { return !entry.problem.empty(); });
}

std::size_t UpgradePlan::missing() const {
    return countEntries(*this, [](const LegacyEntry& entry) { return !entry.replaces; });
}

UpgradePlan planUpgrade(const std::string& folder, bool force) {
    UpgradePlan plan;
    const std::string path = folder + "/" + apps::kSecureLayout.file;
    apps::Tables tables = apps::readTables(path, apps::kSecureLayout.tables);
    plan.problem = tables.problem;
    plan.next = "mend that, or restore the folder from a backup";
    for (const std::string& table : apps::kSecureLayout.tables) {
        const std::vector<Row>& rows = tables.rows[table];
        plan.rows[table] = rows.size();
        if (!plan.problem.empty()) continue;
        plan.problem = unfitKey(path, table, rows);
        plan.next = "delete that row";
    }
    if (!plan.problem.empty()) return plan;
    const std::vector<Row>& sealed = tables.rows["secure_v3"];
    plan.next = "put the files of one and the same backup there";
    plan.problem = ringProblem(folder, anySealed(sealed), plan.next);
    if (!plan.problem.empty()) return plan;

    plan.version = valuesOf(tables.rows["dbinfor"])["dbVersion"];
    planSettings(tables.rows["config"], valuesOf(sealed), plan);
    planSecure(tables.rows["secure"], valuesOf(sealed), plan);
    plan.step = nextStep(plan, force);
    return plan;
}

}  // namespace cli
