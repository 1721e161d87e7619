#include "apps/data/database_check.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "apps/common/escaped.h"
#include "apps/data/sqlite_handles.h"
#include "apps/data/write_ahead_log.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "src/sdconfig_helpers.h"
#include "src/sdconfig_trail_slots.h"

namespace apps {

namespace {

constexpr char kRestore[] = "restore the folder from a backup";

// Tables as the service makes them, what SQLite makes beside them, and what its ANALYZE leaves.
const std::string kStrangeObject = std::string(R"(
    SELECT type || ' ' || name FROM
        (SELECT type, name, sql, lower(replace(replace(sql, ' ', ''), '"', '')) AS text FROM sqlite_master)
    WHERE NOT (type = 'index' AND sql IS NULL)
        AND text IS NOT 'createtable' || lower(name) ||
            '(idintegerprimarykeyautoincrement,keytextcollatenocaseuniqueonconflictfail,valuetext)'
        AND sql IS NOT 'CREATE TABLE sqlite_sequence(name,seq)'
        AND sql IS NOT 'CREATE TABLE sqlite_stat1(tbl,idx,stat)'
        AND sql IS NOT 'CREATE TABLE sqlite_stat4(tbl,idx,neq,nlt,ndlt,sample)'
        AND sql IS NOT 'CREATE TABLE )") +
                                   sd::kTrailTable + sd::kTrailColumns + R"('
    LIMIT 1)";

Finding refusal(const std::string& file, const std::string& what, const std::string& next) {
    return {file, what, next, std::nullopt, true};
}

// What makes a ring that can't be used one that can.
std::string ringRemedy(const std::string& path) {
    struct stat status {};
    const bool openToOthers = ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
                              (status.st_uid == ::geteuid() || status.st_uid == 0) && (status.st_mode & 077) != 0;
    return openToOthers ? "chmod 600 " + shellWord(path)
                        : "make it a plain file of the service's user and of mode 0600, or restore it from a backup";
}

Statement prepare(sqlite3* db, const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
    return Statement(statement);
}

// The text of the statement's first row; nothing where there is none.
std::optional<std::string> firstText(sqlite3* db, const std::string& sql) {
    const Statement statement = prepare(db, sql);
    if (!statement || sqlite3_step(statement.get()) != SQLITE_ROW) return std::nullopt;
    const auto* const text = reinterpret_cast<const char*>(sqlite3_column_text(statement.get(), 0));
    return text ? text : "";
}

std::optional<std::string> versionOf(sqlite3* db) {
    return firstText(db, "SELECT value FROM dbinfor WHERE key = 'dbVersion'");
}

std::optional<Finding> orphanedLog(const std::string& path) {
    std::error_code ignored;
    const auto holdsBytes = [&ignored](const std::string& file) {
        return std::filesystem::exists(file, ignored) && std::filesystem::file_size(file, ignored) > 0;
    };
    if (holdsBytes(path) || !holdsBytes(path + "-wal")) return std::nullopt;
    return refusal(path, "the database " + path + " is missing or empty beside its log",
                   std::string(kRestore) + ", or move " + path + "-wal away to begin anew");
}

// A log in use can begin anew while it is read; damage is there twice.
std::optional<uint64_t> lastingDamage(const std::string& log) {
    std::error_code ignored;
    if (!std::filesystem::is_regular_file(log, ignored)) return std::nullopt;
    const std::optional<uint64_t> place = damagedPlaceOfLog(log);
    return place && damagedPlaceOfLog(log) == place ? place : std::nullopt;
}

std::optional<Finding> versionFinding(const std::string& version, const std::string& path) {
    if (version == sd::kDatabaseVersion) return std::nullopt;
    const std::string what = "the database " + path + " has " +
                             (version.empty() ? "no version" : "version " + escaped(version)) + " where " +
                             sd::kDatabaseVersion + " is expected";
    const auto number = [](const std::string& text) { return std::strtol(text.c_str(), nullptr, 10); };
    if (number(version) > number(sd::kDatabaseVersion)) return Finding{path, what, "use the programs that wrote it"};
    const std::string folder = std::filesystem::path(path).parent_path();
    return Finding{path, what, "carry it over with: sdconfig upgrade " + shellWord(folder)};
}

}  // namespace

std::optional<Finding> irregularFile(const std::string& path) {
    std::vector<std::string> files{path};
    for (const char* suffix : kDatabaseSuffixes) files.push_back(path + suffix);
    for (const std::string& file : files) {
        struct stat status {};
        if (::stat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
            return refusal(file, file + " is not a regular file", "move it away, or put the file itself in its place");
    }
    return std::nullopt;
}

std::optional<Finding> logDamage(const std::string& path) {
    if (auto orphaned = orphanedLog(path)) return orphaned;
    const std::string log = path + "-wal";
    const std::optional<uint64_t> place = lastingDamage(log);
    if (!place) return std::nullopt;
    return refusal(log,
                   "the log " + log + " is damaged at byte " + std::to_string(*place) +
                       ", and values that were stored stand behind that",
                   std::string(kRestore) + ", or move the log away to go on with what the database holds without it");
}

std::optional<Finding> strangeObject(sqlite3* db, const std::string& path) {
    const std::optional<std::string> object = firstText(db, kStrangeObject);
    if (!object) return std::nullopt;
    return Finding{path, "the database " + path + " holds the " + escaped(*object) + ", which no service makes",
                   "drop it with sqlite3 where you know it, or " + std::string(kRestore)};
}

std::optional<Finding> integrityDamage(sqlite3* db, const std::string& path) {
    std::string told = firstText(db, "PRAGMA integrity_check(1)").value_or(sqlite3_errmsg(db));
    if (told == "ok") return std::nullopt;
    std::replace(told.begin(), told.end(), '\n', ' ');
    return refusal(path, "the database " + path + " is damaged (" + told + ")",
                   std::string(kRestore) + ", or recover what can be read with sqlite3's .recover");
}

bool yieldsRow(sqlite3* db, const std::string& sql) {
    const Statement statement = prepare(db, sql);
    return statement && sqlite3_step(statement.get()) == SQLITE_ROW;
}

bool hasTable(sqlite3* db, const std::string& table) {
    return yieldsRow(db, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = '" + table + "'");
}

bool isEmptied(sqlite3* db, const DatabaseLayout& layout) {
    if (hasTable(db, layout.sealedTable)) return false;
    return !hasTable(db, "dbinfor") || versionOf(db) == sd::kDatabaseVersion;
}

std::vector<Finding> layoutFindings(sqlite3* db, const DatabaseLayout& layout, const std::string& path) {
    if (hasTable(db, "dbinfor"))
        if (auto finding = versionFinding(versionOf(db).value_or(""), path)) return {*finding};
    std::vector<Finding> findings;
    const std::string lacking = "the database " + path + " lacks its table ";
    for (const std::string& table : layout.tables)
        if (!hasTable(db, table))
            findings.push_back(
                {path, lacking + table,
                 std::string(kRestore) + ", or start the service, which makes the table anew and empty"});
    return findings;
}

std::optional<Finding> ringFinding(const std::string& folder, bool sealedRows) {
    return ringFinding(folder, sealedRows, sd::SDSecurity::GetInstance()->CheckKeyRing());
}

std::optional<Finding> ringFinding(const std::string& folder, bool sealedRows,
                                   const sd::SDSecurity::KeyRingStatus& ring) {
    using State = sd::SDSecurity::KeyRingState;
    const std::string path = folder + "/" + kRingFile;
    if (ring.state == State::Broken)
        return refusal(path, "the key ring can't be used: " + ring.detail, ringRemedy(path));
    if (ring.state == State::Absent && sealedRows)
        return refusal(path,
                       "the databases in " + folder + " hold sealed values but the key ring " + path + " is missing",
                       "restore it from the same backup");
    return std::nullopt;
}

std::optional<Finding> lockedRing(const std::string& folder, const sd::SDSecurity::KeyRingStatus& ring) {
    if (ring.state != sd::SDSecurity::KeyRingState::Locked) return std::nullopt;
    return Finding{folder + "/" + kRingFile,
                   "the key ring can't be opened now, so that no sealed value can be read or set: " + ring.detail,
                   kOpenRing};
}

bool isRingOf(const std::string& folder, const sd::SDSecurity::KeyRingStatus& ring) {
    const std::string path = folder + "/" + kRingFile;
    return ring.detail == path || ring.detail.compare(0, path.size() + 2, path + ": ") == 0;
}

std::optional<Finding> keyUseFinding(const std::string& folder) {
    using Use = sd::SDSecurity::KeyUse;
    const Use use = sd::SDSecurity::GetInstance()->CheckKeyUse();
    if (use == Use::Fine) return std::nullopt;
    const std::string path = folder + "/" + kRingFile;
    return Finding{path,
                   "the key that seals in " + path +
                       (use == Use::UsedUp ? " is used up, and nothing more can be set"
                                           : " has sealed half of the values that it is good for, or more"),
                   "sdconfigd --rotate-key --data-dir " + shellWord(folder)};
}

}  // namespace apps
