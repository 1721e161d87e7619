#include "apps/sdconfigd/preflight.h"

#include <sqlite3.h>

#include <filesystem>
#include <utility>
#include <vector>

#include "apps/data/database_check.h"
#include "apps/data/sqlite_handles.h"
#include "platform/sdsecurity/sdsecurity.h"

namespace {

constexpr int kBusyTimeoutMs = 5000;

using apps::Database;

std::string problemWith(sqlite3* db, const std::string& path) {
    return "can't open the database " + path + ": " + sqlite3_errmsg(db);
}

std::string lineOf(const apps::Finding& finding) {
    return finding.what + ": " + finding.next;
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

// What the databases hold, as far as it decides about the start.
struct Findings {
    bool sealedRows = false;
    std::string emptied;  // a database that is there but lacks the table of its sealed rows
};

// Opens the file as the store will, takes the write lock and looks for damage and for sealed rows in the table. Leaves
// the file and its log as they are: a start that is refused must not have changed what is to be rescued.
std::string checkDatabase(const std::string& path, const apps::DatabaseLayout& layout, Integrity integrity,
                          Findings& findings) {
    const bool wasThere = std::filesystem::exists(path);
    for (const auto look : {apps::irregularFile, apps::logDamage})
        if (const auto damage = look(path)) return lineOf(*damage);
    std::string problem;
    const Database db = openDatabase(path, problem);
    if (!problem.empty()) return problem;
    sqlite3_db_config(db.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    if (sqlite3_exec(db.get(), "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK)
        return problemWith(db.get(), path);
    if (integrity == Integrity::ToCheck)
        if (const auto damage = apps::integrityDamage(db.get(), path)) return lineOf(*damage);
    const std::string table = layout.sealedTable;
    const std::string rows = "SELECT 1 FROM " + table + " WHERE key <> '' AND value <> '' LIMIT 1";
    if (apps::hasTable(db.get(), table) && apps::yieldsRow(db.get(), rows)) findings.sealedRows = true;
    const int code = sqlite3_errcode(db.get());
    if (code != SQLITE_OK && code != SQLITE_ROW && code != SQLITE_DONE) return problemWith(db.get(), path);
    if (wasThere && apps::isEmptied(db.get(), layout)) findings.emptied = path;
    return "";  // closing rolls the empty transaction back
}

std::string problemOf(const std::string& dataFolder, Integrity integrity) {
    Findings findings;
    for (const apps::DatabaseLayout* layout : apps::kLayouts) {
        const std::string path = dataFolder + "/" + layout->file;
        if (std::string problem = checkDatabase(path, *layout, integrity, findings); !problem.empty()) return problem;
    }

    if (const auto finding = apps::ringFinding(dataFolder, findings.sealedRows)) return lineOf(*finding);
    // The first seal makes the ring, and comes after the tables. One that was handed over tells nothing.
    const std::string ring = sd::SDSecurity::GetInstance()->CheckKeyRing().detail;
    if (!findings.emptied.empty() && ring == dataFolder + "/" + apps::kRingFile)
        return "the database " + findings.emptied + " is there but empty, though values were sealed in " + dataFolder +
               ": restore the folder from a backup, or remove the file to begin anew";
    return "";
}

}  // namespace

std::string preflight(const std::string& dataFolder, Integrity integrity) {
    namespace fs = std::filesystem;
    std::vector<std::string> absent;
    for (const apps::DatabaseLayout* layout : apps::kLayouts)
        if (std::string path = dataFolder + "/" + layout->file; !fs::exists(fs::symlink_status(path)))
            absent.push_back(std::move(path));
    std::string problem = problemOf(dataFolder, integrity);
    // The next start would take an empty database for one that was emptied.
    std::error_code ignored;
    for (const std::string& path : absent)
        if (!problem.empty()) fs::remove(path, ignored);
    return problem;
}

std::string checkTables(const std::string& dataFolder) {
    for (const apps::DatabaseLayout* layout : apps::kLayouts) {
        const std::string path = dataFolder + "/" + layout->file;
        std::string problem;
        const Database db = openDatabase(path, problem);
        if (!problem.empty()) return problem;
        for (const char* table : layout->tables)
            if (!apps::hasTable(db.get(), table))
                return "the database " + path + " lacks its table " + table +
                       ", which could not be made; is there room on the disk?";
    }
    return "";
}
