#include "apps/common/table_reader.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

namespace apps {

namespace {

constexpr int kBusyTimeoutMs = 5000;
// How often a reading begins again because a service came or went meanwhile. Each of those takes more than a reading.
constexpr int kMostAttempts = 5;

constexpr char kSystemName[] = "sdconfig-untouched";

struct CloseDatabase {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

struct FinalizeStatement {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// SQLite opens a log with leave to create it, whatever the connection was opened for. This takes the leave away.
int openExisting(sqlite3_vfs* system, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    flags &= ~(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_DELETEONCLOSE);
    sqlite3_vfs* const plain = sqlite3_vfs_find(nullptr);
    return plain->xOpen(system, name, file, flags | SQLITE_OPEN_READONLY, outFlags);
}

bool registerUntouchedSystem() {
    static sqlite3_vfs untouched = *sqlite3_vfs_find(nullptr);
    untouched.zName = kSystemName;
    untouched.xOpen = openExisting;
    return sqlite3_vfs_register(&untouched, 0) == SQLITE_OK;
}

// What can be seen of a file from outside; two equal ones mean that nobody wrote it in between.
struct FileState {
    bool exists = false;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t changedNs = 0;

    explicit FileState(const std::string& path) {
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0) return;
        exists = true;
        inode = status.st_ino;
        size = status.st_size;
        changedNs = status.st_mtim.tv_sec * std::int64_t{1'000'000'000} + status.st_mtim.tv_nsec;
    }
    bool operator==(const FileState& other) const {
        return exists == other.exists && inode == other.inode && size == other.size && changedNs == other.changedNs;
    }
};

struct DatabaseFiles {
    FileState database;
    FileState log;
    bool hasIndex;

    explicit DatabaseFiles(const std::string& path)
        : database(path), log(path + "-wal"), hasIndex(FileState(path + "-shm").exists) {}
    bool operator!=(const DatabaseFiles& other) const { return !(*this == other); }
    bool operator==(const DatabaseFiles& other) const {
        return database == other.database && log == other.log && hasIndex == other.hasIndex;
    }
};

// A folder that nobody else can look into, for the life of the object.
class PrivateFolder {
public:
    PrivateFolder() {
        std::string name = std::filesystem::temp_directory_path() / "sdconfig-XXXXXX";
        if (::mkdtemp(name.data())) mPath = name;  // mode 0700
    }
    ~PrivateFolder() {
        std::error_code ignored;
        if (!mPath.empty()) std::filesystem::remove_all(mPath, ignored);
    }
    PrivateFolder(const PrivateFolder&) = delete;
    PrivateFolder& operator=(const PrivateFolder&) = delete;

    const std::string& path() const { return mPath; }

private:
    std::string mPath;
};

// The name of a file as an SQLite URI takes it.
std::string uriOf(const std::string& path) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string uri = "file:";
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) != 0 || std::strchr("/._-", c) != nullptr)
            uri += c;
        else
            uri.append({'%', kHex[byte >> 4], kHex[byte & 15]});
    }
    return uri;
}

// One attempt to read, over a connection of its own.
class Reading {
public:
    // system: the SQLite file system to go through; null for the plain one.
    Reading(const std::string& file, int flags, const char* system) {
        sqlite3* opened = nullptr;
        mCode = sqlite3_open_v2(file.c_str(), &opened, flags, system);
        mDatabase.reset(opened);
        sqlite3_busy_timeout(opened, kBusyTimeoutMs);
        if (mCode == SQLITE_OK) mCode = sqlite3_exec(opened, "BEGIN", nullptr, nullptr, nullptr);
    }

    bool ok() const { return mCode == SQLITE_OK; }
    int code() const { return mCode & 0xff; }
    std::string error() const { return mDatabase ? sqlite3_errmsg(mDatabase.get()) : sqlite3_errstr(mCode); }

    void read(const std::string& table, const std::optional<std::string>& key, Tables& into) {
        if (!holds(table)) return;
        std::vector<Row>& rows = into.rows[table];
        const std::string condition = key ? " WHERE key = ?1 COLLATE NOCASE" : "";
        const Statement statement = prepare("SELECT key, value FROM \"" + table + "\"" + condition + " ORDER BY id");
        if (statement && key) bind(statement.get(), *key);
        while (step(statement.get())) rows.push_back({column(statement.get(), 0), column(statement.get(), 1)});
    }

private:
    bool holds(const std::string& table) {
        const Statement statement = prepare("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?1");
        if (statement) bind(statement.get(), table);
        return step(statement.get());
    }

    Statement prepare(const std::string& sql) {
        sqlite3_stmt* statement = nullptr;
        if (ok()) mCode = sqlite3_prepare_v2(mDatabase.get(), sql.c_str(), -1, &statement, nullptr);
        return Statement(statement);
    }

    static void bind(sqlite3_stmt* statement, const std::string& text) {
        sqlite3_bind_text(statement, 1, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    }

    // Whether there is another row. At the end and on a failure there is none; a failure stays in the code.
    bool step(sqlite3_stmt* statement) {
        if (!ok() || !statement) return false;
        const int result = sqlite3_step(statement);
        if (result != SQLITE_ROW && result != SQLITE_DONE) mCode = result;
        return result == SQLITE_ROW;
    }

    static std::string column(sqlite3_stmt* statement, int index) {
        const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, index));
        const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, index));
        return bytes ? std::string(bytes, size) : "";
    }

    Database mDatabase;
    int mCode = SQLITE_OK;
};

class TableReader {
public:
    TableReader(const std::string& path, const std::vector<std::string>& tables, const std::optional<std::string>& key)
        : mPath(path), mTables(tables), mKey(key) {}

    Tables read() {
        static const bool registered = registerUntouchedSystem();
        if (!registered) return problem(" can't be read: SQLite takes no file system of ours");
        for (int attempt = 1;; ++attempt) {
            if (std::string why = unfit(); !why.empty()) return problem(why);
            Tables result;
            if (readOnce(result)) return result;
            if (attempt == kMostAttempts) return problem(" is being opened and closed by others all the time");
        }
    }

private:
    Tables problem(const std::string& why) const { return {{}, mPath + why}; }

    // Why it is no file that can be read; "" where it is one. Takes its journal mode over from its header.
    std::string unfit() {
        const int descriptor = ::open(mPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        if (descriptor < 0)
            return errno == ENOENT ? " is not there" : std::string(" can't be read: ") + std::strerror(errno);
        struct stat status {};
        const bool regular = ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
        std::array<char, 20> header{};
        const bool whole = regular && ::read(descriptor, header.data(), header.size()) == ssize_t{header.size()};
        ::close(descriptor);
        constexpr char kLogMode = 2;  // in byte 18: the version that a writer of the file has to know
        mLogMode = whole && header[18] == kLogMode;
        return regular ? "" : " is not a regular file";
    }

    // False when somebody opened or closed the database meanwhile, so that what was read counts for nothing.
    bool readOnce(Tables& result) {
        const DatabaseFiles before(mPath);
        const std::string uri = uriOf(mPath) + "?mode=ro";
        constexpr int kFlags = SQLITE_OPEN_READONLY | SQLITE_OPEN_URI;
        if (before.log.exists && before.hasIndex) {
            Reading reading(uri + "&readonly_shm=1", kFlags, kSystemName);
            fill(reading, result);
            const DatabaseFiles after(mPath);
            return reading.ok() || (after.log.exists && after.hasIndex);
        }
        if (before.log.exists) return readCopy(before, result);
        Reading reading(uri + (mLogMode ? "&immutable=1" : ""), kFlags, kSystemName);
        fill(reading, result);
        return DatabaseFiles(mPath) == before;
    }

    bool readCopy(const DatabaseFiles& before, Tables& result) {
        const PrivateFolder folder;
        if (folder.path().empty()) {
            result = problem(std::string(" can't be copied: ") + std::strerror(errno));
            return true;
        }
        const std::string copy = folder.path() + "/copy";
        std::error_code failure;
        for (const char* part : {"", "-wal"})
            if (!failure) std::filesystem::copy_file(mPath + part, copy + part, failure);
        if (DatabaseFiles(mPath) != before) return false;
        if (failure) {
            result = problem(" can't be copied: " + failure.message());
            return true;
        }
        Reading reading(copy, SQLITE_OPEN_READWRITE, nullptr);
        fill(reading, result);
        return true;
    }

    void fill(Reading& reading, Tables& result) {
        for (const std::string& table : mTables) reading.read(table, mKey, result);
        if (reading.ok()) return;
        result = problem(reading.code() == SQLITE_NOTADB ? " is not a database"
                         : reading.code() == SQLITE_BUSY ? " is locked by another process"
                                                         : " can't be read: " + reading.error());
    }

    const std::string& mPath;
    const std::vector<std::string>& mTables;
    const std::optional<std::string>& mKey;
    bool mLogMode = false;
};

}  // namespace

Tables readTables(const std::string& database, const std::vector<std::string>& tables,
                  const std::optional<std::string>& key) {
    return TableReader(database, tables, key).read();
}

}  // namespace apps
