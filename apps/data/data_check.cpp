#include "apps/data/data_check.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>

#include "apps/common/escaped.h"
#include "apps/data/data_reader.h"
#include "apps/data/database_check.h"
#include "apps/data/sqlite_handles.h"
#include "apps/data/trail_check.h"

namespace apps {

namespace {

constexpr mode_t kOthers = 0077;

bool isPolicies(const DatabaseLayout& layout) {
    return &layout == &kPolicyLayout;
}

std::optional<Finding> missingFile(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0 || errno != ENOENT) return std::nullopt;
    return Finding{path, "there is no " + path,
                   "restore the folder from a backup, or start the service, which makes an empty one"};
}

// Why the file, where there is one, is none that a service would have made.
std::optional<Finding> strangeFile(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode)) return std::nullopt;
    return Finding{path, path + (S_ISLNK(status.st_mode) ? " is a symbolic link" : " is not a regular file"),
                   "put the file itself in its place"};
}

class DatabaseChecker {
public:
    DatabaseChecker(const std::string& path, const DatabaseLayout& layout) : mPath(path), mLayout(layout) {}

    DatabaseCheck check(const Stop& stop, const DatabaseUse& use) {
        if (const auto finding = fileFinding()) return {{*finding}, {}};
        const auto readAnew = [&](sqlite3* db) {
            mResult = {};
            return read(db, use);
        };
        const std::string problem = readUntouched(mPath, readAnew, stop);
        if (!problem.empty())
            mResult.damage = {{mPath, problem, "see that it can be read, or restore the folder from a backup"}};
        return std::move(mResult);
    }

private:
    // What shows before SQLite opens the files, which it could wait for or change.
    std::optional<Finding> fileFinding() const {
        for (const char* suffix : kDatabaseSuffixes)
            if (auto finding = strangeFile(mPath + suffix)) return finding;
        for (const auto look : {strangeFile, logDamage, missingFile})
            if (auto finding = look(mPath)) return finding;
        return std::nullopt;
    }

    int read(sqlite3* db, const DatabaseUse& use) {
        const int code = sqlite3_exec(db, "SELECT 1 FROM sqlite_master", nullptr, nullptr, nullptr);
        if (code != SQLITE_OK && code != SQLITE_CORRUPT) return code;
        for (const auto look : {strangeObject, integrityDamage}) {
            if (const auto damage = look(db, mPath)) {
                mResult.damage.push_back(*damage);
                return SQLITE_OK;
            }
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
            checkRow({columnBytes(prepared, 0), columnBytes(prepared, 1), isText(prepared, 0)});
            code = SQLITE_OK;
        }
        return code == SQLITE_DONE ? SQLITE_OK : code;
    }

    void checkRow(const Row& row) {
        ++mResult.count;
        if (!row.value.empty()) ++mResult.sealed;
        RowFault fault{"has a key that is no text, by which it is never found", "restore the folder from a backup"};
        if (row.isFound && (!mRingUsable || isReadable(row, fault))) return;
        const std::string named =
            std::string("the ") + mLayout.sealedName + " \"" + escaped(row.key) + "\" of " + mPath;
        mResult.rows.push_back({mPath, named + " " + fault.what, fault.next, row.key});
    }

    bool isReadable(const Row& row, RowFault& fault) const {
        return isPolicies(mLayout) ? DataReader::policy(row, &fault).has_value()
                                   : DataReader::secureValue(row, &fault).has_value();
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
                            "chown " + std::to_string(owner) + " " + shellWord(path)});
    if (status.st_mode & kOthers)
        findings.push_back({path, "others may get at " + path, "chmod " + mode + " " + shellWord(path)});
    return findings;
}

template <class Findings>
void append(std::vector<Finding>& all, Findings&& more) {
    all.insert(all.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

// The same of the folder, whose owner counts, and of all that stands in it. The key ring has a check of its own.
std::vector<Finding> folderAccessFindings(const std::string& folder, uid_t owner) {
    std::vector<Finding> findings = accessFindings(folder, "700", owner);
    if (belongsToAnother(folder))
        findings.push_back({folder, folder + " belongs to user " + std::to_string(owner), kRunAsThat});
    std::vector<std::string> files(kOtherFiles.begin(), kOtherFiles.end());
    for (const DatabaseLayout* layout : kLayouts) {
        files.emplace_back(layout->file);
        for (const char* suffix : kDatabaseSuffixes) files.push_back(layout->file + std::string(suffix));
    }
    for (std::string& file : trailFiles(folder)) files.push_back(std::move(file));
    const std::string inside = folder + "/";
    for (const std::string& file : files) append(findings, accessFindings(inside + file, "600", owner));
    return findings;
}

}  // namespace

DatabaseCheck checkDatabase(const std::string& path, const DatabaseLayout& layout, const Stop& stop,
                            const DatabaseUse& use) {
    return DatabaseChecker(path, layout).check(stop, use);
}

bool belongsToAnother(const std::string& folder) {
    struct stat status {};
    return ::stat(folder.c_str(), &status) == 0 && status.st_uid != ::geteuid();
}

bool isDataFolder(const std::string& folder) {
    std::error_code ignored;
    const auto holds = [&](const char* file) { return std::filesystem::exists(folder + "/" + file, ignored); };
    return holds(kSecureLayout.file) || holds(kPolicyLayout.file) || holds(kRingFile);
}

std::optional<Finding> folderFinding(const std::string& folder) {
    static constexpr char kName[] = "name the folder that holds sdconfig.db";
    struct stat status {};
    if (::stat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        return Finding{folder, "there is no folder " + folder, kName};
    if (isDataFolder(folder)) return std::nullopt;
    return Finding{folder, folder + " is no data folder: it holds neither a database nor a key ring", kName};
}

std::string remedyFor(const std::string& folder) {
    if (folderFinding(folder)) return "";
    for (const DatabaseLayout* layout : kLayouts)
        if (const DatabaseCheck check = checkDatabase(folder + "/" + layout->file, *layout); !check.damage.empty())
            return check.damage.front().next;
    return "";
}

bool holdsSealedValues(const std::string& folder) {
    return std::any_of(kLayouts.begin(), kLayouts.end(), [&](const DatabaseLayout* layout) {
        return checkDatabase(folder + "/" + layout->file, *layout).sealed > 0;
    });
}

DataCheck checkData(const std::string& folder, const Stop& stop) {
    if (const auto finding = folderFinding(folder)) return {{*finding}};
    struct stat status {};
    ::stat(folder.c_str(), &status);
    DataCheck result;
    append(result.findings, folderAccessFindings(folder, status.st_uid));
    std::size_t sealed = 0;
    for (const DatabaseLayout* layout : kLayouts) {
        DatabaseCheck check = checkDatabase(folder + "/" + layout->file, *layout, stop);
        append(result.findings, std::move(check.damage));
        append(result.findings, std::move(check.rows));
        sealed += check.sealed;
        (isPolicies(*layout) ? result.policies : result.secure) = check.count;
    }
    if (auto finding = ringFinding(folder, sealed > 0)) {
        if (belongsToAnother(folder)) finding->next = kRunAsThat;
        result.findings.push_back(std::move(*finding));
    }
    if (auto finding = lockedRing(folder, sd::SDSecurity::GetInstance()->CheckKeyRing()))
        result.findings.push_back(std::move(*finding));
    if (auto finding = checkTrail(folder, ringDigest()).finding) result.findings.push_back(std::move(*finding));
    if (auto finding = keyUseFinding(folder)) result.findings.push_back(std::move(*finding));
    return result;
}

}  // namespace apps
