#include "apps/sdconfigd/preflight.h"

#include <sqlite3.h>

#include <filesystem>
#include <vector>

#include "apps/common/descriptor.h"
#include "apps/data/database_check.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "src/sdconfig_impl.h"
#include "src/sdconfig_impl_policy.h"

namespace {

namespace fs = std::filesystem;

constexpr int kBusyTimeoutMs = 5000;

std::string problemWith(sqlite3* db, const std::string& path) {
    return "can't open the database " + path + ": " + sqlite3_errmsg(db);
}

std::string lineOf(const apps::Finding& finding) {
    return finding.what + ": " + finding.next;
}

// A database with its tables, under its name only when all of it is on the disk.
void makeWhole(const std::string& path) {
    const std::string aside = path + ".new";
    std::error_code ignored;
    fs::remove(aside, ignored);
    for (const char* const suffix : apps::kDatabaseSuffixes) fs::remove(aside + suffix, ignored);
    if (fs::path(path).filename() == apps::kPolicyLayout.file)
        sd::SDConfigDmHelper made(aside);
    else
        sd::SDConfigImpl made(aside);  // closed again, which moves its log into the file
    fs::rename(aside, path, ignored);
    apps::syncFolder(fs::path(path).parent_path());
}

}  // namespace

std::string Preflight::pathOf(std::size_t which) const {
    return mFolder + "/" + apps::kLayouts[which]->file;
}

// As the store will.
std::string Preflight::open(std::size_t which) {
    if (mDatabases[which]) return "";
    sqlite3* opened = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    const int result = sqlite3_open_v2(pathOf(which).c_str(), &opened, flags, nullptr);
    mDatabases[which].reset(opened);
    if (result != SQLITE_OK) return problemWith(opened, pathOf(which));
    sqlite3_busy_timeout(opened, kBusyTimeoutMs);
    // A start that is refused must not have changed what is to be rescued.
    sqlite3_db_config(opened, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    return "";
}

// Takes the write lock for its look, which leaves the file and its log as they are.
std::string Preflight::checkDatabase(std::size_t which, Integrity integrity, Findings& findings) {
    const std::string path = pathOf(which);
    const bool wasThere = fs::exists(path);
    for (const auto look : {apps::irregularFile, apps::logDamage})
        if (const auto damage = look(path)) return lineOf(*damage);
    if (std::string problem = open(which); !problem.empty()) return problem;
    sqlite3* const db = mDatabases[which].get();
    if (sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) return problemWith(db, path);
    std::string problem = lookInto(which, integrity, findings);
    if (problem.empty() && wasThere && apps::isEmptied(db, *apps::kLayouts[which])) findings.emptied = path;
    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    return problem;
}

std::string Preflight::lookInto(std::size_t which, Integrity integrity, Findings& findings) {
    sqlite3* const db = mDatabases[which].get();
    if (integrity == Integrity::ToCheck)
        if (const auto damage = apps::integrityDamage(db, pathOf(which))) return lineOf(*damage);
    const std::string table = apps::kLayouts[which]->sealedTable;
    const std::string rows = "SELECT 1 FROM " + table + " WHERE key <> '' AND value <> '' LIMIT 1";
    if (apps::hasTable(db, table) && apps::yieldsRow(db, rows)) findings.sealedRows = true;
    const int code = sqlite3_errcode(db);
    return code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE ? "" : problemWith(db, pathOf(which));
}

std::string Preflight::checkBoth(Integrity integrity) {
    Findings findings;
    for (std::size_t which = 0; which < mDatabases.size(); ++which)
        if (std::string problem = checkDatabase(which, integrity, findings); !problem.empty()) return problem;

    // One that is wrapped is opened while the rest of the start is done: it takes a machine's TPM some time.
    const auto ring = sd::SDSecurity::GetInstance()->OpenKeyRingAhead();
    mIsRingLocked = ring.state == sd::SDSecurity::KeyRingState::Locked;
    if (const auto finding = apps::ringFinding(mFolder, findings.sealedRows, ring)) return lineOf(*finding);
    // The first seal makes the ring, and comes after the tables. One that was handed over tells nothing.
    const bool isMade = ring.state != sd::SDSecurity::KeyRingState::Absent;
    if (!findings.emptied.empty() && isMade && apps::isRingOf(mFolder, ring))
        return "the database " + findings.emptied + " is there but empty, though values were sealed in " + mFolder +
               ": restore the folder from a backup, or remove the file to begin anew";
    return "";
}

std::string Preflight::check(Integrity integrity) {
    std::vector<std::string> absent;
    for (std::size_t which = 0; which < mDatabases.size(); ++which)
        if (std::string path = pathOf(which); !fs::exists(fs::symlink_status(path))) absent.push_back(std::move(path));
    // Beside a ring an empty database is taken for one that was emptied: it must not be there while it is being made.
    if (fs::exists(mFolder + "/" + apps::kRingFile))
        for (const std::string& path : absent) makeWhole(path);
    std::string problem = checkBoth(integrity);
    if (problem.empty()) return "";
    close();
    // The next start would take an empty database for one that was emptied.
    std::error_code ignored;
    for (const std::string& path : absent) fs::remove(path, ignored);
    return problem;
}

std::string Preflight::checkTables() {
    for (std::size_t which = 0; which < mDatabases.size(); ++which) {
        if (std::string problem = open(which); !problem.empty()) return problem;
        for (const std::string& table : apps::kLayouts[which]->tables)
            if (!apps::hasTable(mDatabases[which].get(), table))
                return "the database " + pathOf(which) + " lacks its table " + table +
                       ", which could not be made; is there room on the disk?";
    }
    return "";
}
