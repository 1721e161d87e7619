#include "apps/common/data_check.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>

#include "apps/common/data_reader.h"
#include "apps/common/database_check.h"
#include "apps/common/escaped.h"
#include "apps/common/sqlite_handles.h"

namespace apps {

namespace {

constexpr mode_t kOthers = 0077;

bool isPolicies(const DatabaseLayout& layout) {
    return &layout == &kPolicyLayout;
}

// Why the file is none that a service would have made; nothing where it is one.
std::optional<Finding> strangeFile(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 && errno == ENOENT)
        return Finding{path, "there is no " + path,
                       "restore the folder from a backup, or start the service, which makes an empty one"};
    if (S_ISREG(status.st_mode)) return std::nullopt;
    return Finding{path, path + (S_ISLNK(status.st_mode) ? " is a symbolic link" : " is not a regular file"),
                   "put the file itself in its place"};
}

class DatabaseChecker {
public:
    DatabaseChecker(const std::string& path, const DatabaseLayout& layout) : mPath(path), mLayout(layout) {}

    DatabaseCheck check(const DatabaseUse& use) {
        for (const auto look : {logDamage, strangeFile})
            if (const auto finding = look(mPath)) return {{*finding}, {}};
        const std::string problem = readUntouched(mPath, [&](sqlite3* db) {
            mResult = {};
            return read(db, use);
        });
        if (!problem.empty())
            mResult.damage = {{mPath, problem, "see that it can be read, or restore the folder from a backup"}};
        return std::move(mResult);
    }

private:
    int read(sqlite3* db, const DatabaseUse& use) {
        const int code = sqlite3_exec(db, "SELECT 1 FROM sqlite_master", nullptr, nullptr, nullptr);
        if (code != SQLITE_OK && code != SQLITE_CORRUPT) return code;
        if (const auto damage = integrityDamage(db, mPath)) {
            mResult.damage.push_back(*damage);
            return SQLITE_OK;
        }
        mResult.damage = layoutFindings(db, mLayout, mPath);
        if (hasTable(db, mLayout.sealedTable))
            if (const int failure = readRows(db)) return failure;
        return mResult.damage.empty() && use ? use(db) : SQLITE_OK;
    }

    int readRows(sqlite3* db) {
        sqlite3_stmt* prepared = nullptr;
        const std::string sql = std::string("SELECT key, value FROM ") + mLayout.sealedTable + " ORDER BY id";
        int code = sqlite3_prepare_v2(db, sql.c_str(), -1, &prepared, nullptr);
        const Statement statement(prepared);
        while (code == SQLITE_OK && (code = sqlite3_step(prepared)) == SQLITE_ROW) {
            checkRow({columnBytes(prepared, 0), columnBytes(prepared, 1)});
            code = SQLITE_OK;
        }
        return code == SQLITE_DONE ? SQLITE_OK : code;
    }

    void checkRow(const Row& row) {
        ++mResult.count;
        if (!row.value.empty()) ++mResult.sealed;
        if (!mRingUsable) return;
        if (!DataReader::secureValue(row))
            add(row, "can't be opened with the key ring",
                "restore the databases and the key ring from the same backup, or set or delete it");
        else if (isPolicies(mLayout) && !DataReader::policy(row))
            add(row, "holds no value and priority", "set or delete it");
    }

    void add(const Row& row, const char* what, const std::string& next) {
        const std::string named =
            std::string("the ") + mLayout.sealedName + " \"" + escaped(row.key) + "\" of " + mPath;
        mResult.rows.push_back({mPath, named + " " + what, next, row.key});
    }

    const std::string& mPath;
    const DatabaseLayout& mLayout;
    const bool mRingUsable = DataReader::ringProblem().empty();
    DatabaseCheck mResult;
};

// Whether others than the owner can get at the file or folder. One that isn't there has no findings.
std::vector<Finding> accessFindings(const std::string& path, const std::string& mode, uid_t owner) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 || S_ISLNK(status.st_mode)) return {};
    std::vector<Finding> findings;
    if (status.st_uid != owner)
        findings.push_back({path, path + " belongs to user " + std::to_string(status.st_uid),
                            "check it as the service's user, or give it to that one with chown"});
    if (status.st_mode & kOthers) findings.push_back({path, "others may get at " + path, "chmod " + mode + " " + path});
    return findings;
}

template <class Findings>
void append(std::vector<Finding>& all, Findings&& more) {
    all.insert(all.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

}  // namespace

DatabaseCheck checkDatabase(const std::string& path, const DatabaseLayout& layout, const DatabaseUse& use) {
    return DatabaseChecker(path, layout).check(use);
}

DataCheck checkData(const std::string& folder) {
    struct stat status {};
    if (::stat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        return {{{folder, "there is no folder " + folder, "name the folder that holds sdconfig.db"}}};
    DataCheck result;
    append(result.findings, accessFindings(folder, "700", ::geteuid()));
    std::size_t sealed = 0;
    for (const DatabaseLayout* layout : kLayouts) {
        const std::string path = folder + "/" + layout->file;
        append(result.findings, accessFindings(path, "600", status.st_uid));
        for (const char* suffix : kDatabaseSuffixes)
            append(result.findings, accessFindings(path + suffix, "600", status.st_uid));
        DatabaseCheck check = checkDatabase(path, *layout);
        append(result.findings, std::move(check.damage));
        append(result.findings, std::move(check.rows));
        sealed += check.sealed;
        (isPolicies(*layout) ? result.policies : result.secure) = check.count;
    }
    if (const auto finding = ringFinding(folder, sealed > 0)) result.findings.push_back(*finding);
    return result;
}

}  // namespace apps
