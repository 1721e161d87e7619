#include "apps/sdconfigd/preflight.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

#include "apps/sdconfigd/write_ahead_log.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "src/sdconfig_helpers.h"

namespace {

constexpr int kBusyTimeoutMs = 5000;

struct CloseDatabase {
    void operator()(sqlite3* db) const { sqlite3_close(db); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

std::string makeFolder(const std::filesystem::path& folder) {
    struct stat status {};
    if (::stat(folder.c_str(), &status) == 0)
        return S_ISDIR(status.st_mode) ? "" : folder.string() + " is not a folder";
    if (folder.has_parent_path() && folder.parent_path() != folder)
        if (std::string problem = makeFolder(folder.parent_path()); !problem.empty()) return problem;
    if (::mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST) return "";
    return "can't make the folder " + folder.string() + ": " + std::strerror(errno);
}

std::string problemWith(sqlite3* db, const std::string& path) {
    return "can't open the database " + path + ": " + sqlite3_errmsg(db);
}

// Whether the statement yields a row. Throws nothing; a failure shows in sqlite3_errcode.
bool yieldsRow(sqlite3* db, const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) return false;
    const bool row = sqlite3_step(statement) == SQLITE_ROW;
    sqlite3_finalize(statement);
    return row;
}

Database openDatabase(const std::string& path, std::string& problem) {
    sqlite3* opened = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    const int result = sqlite3_open_v2(path.c_str(), &opened, flags, nullptr);
    Database db(opened);
    if (result != SQLITE_OK) problem = problemWith(db.get(), path);
    sqlite3_busy_timeout(db.get(), kBusyTimeoutMs);
    return db;
}

bool hasTable(sqlite3* db, const std::string& table) {
    return yieldsRow(db, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = '" + table + "'");
}

// What the databases hold, as far as it decides about the start.
struct Findings {
    bool sealedRows = false;
    std::string emptied;  // a database that is there but lacks the table of its sealed rows
};

// SQLite reads on over much damage: an index that names another row would answer one key with another's value.
std::string integrityProblem(sqlite3* db, const std::string& path) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, "PRAGMA integrity_check(1)", -1, &statement, nullptr) != SQLITE_OK)
        return problemWith(db, path);
    const bool row = sqlite3_step(statement) == SQLITE_ROW;
    std::string told = row ? reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)) : sqlite3_errmsg(db);
    sqlite3_finalize(statement);
    if (row && told == "ok") return "";
    std::replace(told.begin(), told.end(), '\n', ' ');
    return "the database " + path + " is damaged (" + told +
           "): restore the folder from a backup, or recover what can be read with sqlite3's .recover";
}

// Whether the database, of a file that was there before, was emptied. One of an earlier version lacks the table, too.
bool isEmptied(sqlite3* db, const std::string& table) {
    if (hasTable(db, table)) return false;
    if (!hasTable(db, "dbinfor")) return true;
    const std::string version = sd::kDatabaseVersion;
    return yieldsRow(db, "SELECT 1 FROM dbinfor WHERE key = 'dbVersion' AND value = '" + version + "'");
}

// SQLite deletes a log whose database is empty, and with it everything that was not moved from the one to the other.
std::string orphanProblem(const std::string& path) {
    std::error_code ignored;
    const auto holdsBytes = [&ignored](const std::string& file) {
        return std::filesystem::exists(file, ignored) && std::filesystem::file_size(file, ignored) > 0;
    };
    if (holdsBytes(path) || !holdsBytes(path + "-wal")) return "";
    return "the database " + path + " is missing or empty beside its log: restore the folder from a backup, or move " +
           path + "-wal away to begin anew";
}

// Opens the file as the store will, takes the write lock and looks for damage and for sealed rows in the table. Leaves
// the file and its log as they are: a start that is refused must not have changed what is to be rescued.
std::string checkDatabase(const std::string& path, const std::string& table, Findings& findings) {
    const bool wasThere = std::filesystem::exists(path);
    std::string problem = orphanProblem(path);
    if (problem.empty()) problem = logProblem(path + "-wal");
    if (!problem.empty()) return problem;
    const Database db = openDatabase(path, problem);
    if (!problem.empty()) return problem;
    sqlite3_db_config(db.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    if (sqlite3_exec(db.get(), "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK)
        return problemWith(db.get(), path);
    problem = integrityProblem(db.get(), path);
    if (!problem.empty()) return problem;
    const std::string rows = "SELECT 1 FROM " + table + " WHERE key <> '' AND value <> '' LIMIT 1";
    if (hasTable(db.get(), table) && yieldsRow(db.get(), rows)) findings.sealedRows = true;
    const int code = sqlite3_errcode(db.get());
    if (code != SQLITE_OK && code != SQLITE_ROW && code != SQLITE_DONE) return problemWith(db.get(), path);
    if (wasThere && isEmptied(db.get(), table)) findings.emptied = path;
    return "";  // closing rolls the empty transaction back
}

}  // namespace

std::string makeDataFolder(const std::string& dataFolder) {
    return makeFolder(dataFolder);
}

std::string preflight(const std::string& dataFolder) {
    Findings findings;
    for (const auto& [file, table] : {std::pair{"/sdconfig.db", "secure_v3"}, {"/dmhelper.db", "dmhelperconfig"}})
        if (std::string problem = checkDatabase(dataFolder + file, table, findings); !problem.empty()) return problem;

    const auto ring = sd::SDSecurity::GetInstance()->CheckKeyRing();
    if (ring.state == sd::SDSecurity::KeyRingState::Broken) return "the key ring can't be used: " + ring.detail;
    if (findings.sealedRows && ring.state == sd::SDSecurity::KeyRingState::Absent)
        return "the databases in " + dataFolder + " hold sealed values but the key ring " + ring.detail +
               " is missing: restore it from the same backup";
    // The first seal makes the ring, and comes after the tables. One that was handed over tells nothing.
    if (!findings.emptied.empty() && ring.detail == dataFolder + "/sdsecurity.keys")
        return "the database " + findings.emptied + " is there but empty, though values were sealed in " + dataFolder +
               ": restore the folder from a backup, or remove the file to begin anew";
    return "";
}

std::string checkTables(const std::string& dataFolder) {
    for (const auto& [file, tables] :
         {std::pair{"/sdconfig.db", std::vector{"dbinfor", "config", "secure", "secure_v3"}},
          {"/dmhelper.db", {"dmhelperconfig"}}}) {
        std::string problem;
        const Database db = openDatabase(dataFolder + file, problem);
        if (!problem.empty()) return problem;
        for (const char* table : tables)
            if (!hasTable(db.get(), table))
                return "the database " + dataFolder + file + " lacks its table " + table +
                       ", which could not be made; is there room on the disk?";
    }
    return "";
}
