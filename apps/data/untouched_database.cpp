#include "apps/data/untouched_database.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>

#include "apps/data/database_check.h"
#include "apps/data/sqlite_handles.h"
#include "apps/data/temporary_folder.h"

namespace apps {

namespace {

constexpr int kBusyTimeoutMs = 5000;
// How often a reading begins again because a service came or went meanwhile. Each of those takes more than a reading.
constexpr int kMostAttempts = 5;

// A stored value takes 43 MiB at most: 16 MiB of it, each byte two in UTF-8, in base64.
constexpr int kMostRowBytes = 64 << 20;
constexpr int kStepsBetweenAsking = 10'000;

constexpr char kSystemName[] = "sdconfig-untouched";

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

// A log that is no longer than its header holds nothing. SQLite, kept from making an index anew, would try to read it
// for ten seconds: whoever is killed between the header and the first commit leaves one.
constexpr off_t kLogHeaderBytes = 32;

struct DatabaseFiles {
    FileState database;
    FileState log;
    bool hasIndex;

    explicit DatabaseFiles(const std::string& path)
        : database(path), log(path + "-wal"), hasIndex(FileState(path + "-shm").exists) {}
    bool hasLog() const { return log.exists && log.size > kLogHeaderBytes; }
    bool operator!=(const DatabaseFiles& other) const { return !(*this == other); }
    bool operator==(const DatabaseFiles& other) const {
        return database == other.database && log == other.log && hasIndex == other.hasIndex;
    }
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
        sqlite3_limit(opened, SQLITE_LIMIT_LENGTH, kMostRowBytes);
        sqlite3_db_config(opened, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
        if (mCode == SQLITE_OK) mCode = sqlite3_exec(opened, "BEGIN", nullptr, nullptr, nullptr);
    }

    void hand(const DatabaseUse& use, Stop& stop) {
        const auto ask = [](void* asked) { return (*static_cast<Stop*>(asked))() ? 1 : 0; };
        if (stop) sqlite3_progress_handler(mDatabase.get(), kStepsBetweenAsking, ask, &stop);
        if (ok()) mCode = use(mDatabase.get());
    }

    bool ok() const { return mCode == SQLITE_OK; }
    int code() const { return mCode & 0xff; }
    std::string error() const { return mDatabase ? sqlite3_errmsg(mDatabase.get()) : sqlite3_errstr(mCode); }

private:
    Database mDatabase;
    int mCode = SQLITE_OK;
};

class UntouchedDatabase {
public:
    UntouchedDatabase(const std::string& path, const DatabaseUse& use, const Stop& stop)
        : mPath(path), mUse(use), mStop(stop) {}

    std::string read() {
        static const bool registered = registerUntouchedSystem();
        if (!registered) return mPath + " can't be read: SQLite takes no file system of ours";
        for (int attempt = 1;; ++attempt) {
            if (const auto irregular = irregularFile(mPath)) return irregular->what;
            if (std::string why = unfit(); !why.empty()) return mPath + why;
            std::string problem;
            if (readOnce(problem)) return problem.empty() ? "" : mPath + problem;
            if (attempt == kMostAttempts) return mPath + " is being opened and closed by others all the time";
        }
    }

private:
    // Why it can't be read; "" where it can. Takes its journal mode over from its header.
    std::string unfit() {
        const int descriptor = ::open(mPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        if (descriptor < 0)
            return errno == ENOENT ? " is not there" : std::string(" can't be read: ") + std::strerror(errno);
        std::array<char, 20> header{};
        const bool whole = ::read(descriptor, header.data(), header.size()) == ssize_t{header.size()};
        ::close(descriptor);
        constexpr char kLogMode = 2;  // in byte 18: the version that a writer of the file has to know
        mLogMode = whole && header[18] == kLogMode;
        return "";
    }

    // False when somebody opened or closed the database meanwhile, so that what was read counts for nothing.
    bool readOnce(std::string& problem) {
        const DatabaseFiles before(mPath);
        const std::string uri = uriOf(mPath) + "?mode=ro";
        constexpr int kFlags = SQLITE_OPEN_READONLY | SQLITE_OPEN_URI;
        if (before.hasLog() && before.hasIndex) {
            Reading reading(uri + "&readonly_shm=1", kFlags, kSystemName);
            problem = problemOf(reading);
            const DatabaseFiles after(mPath);
            return reading.ok() || (after.hasLog() && after.hasIndex);
        }
        if (before.hasLog()) return readCopy(before, problem);
        Reading reading(uri + (mLogMode ? "&immutable=1" : ""), kFlags, kSystemName);
        problem = problemOf(reading);
        return DatabaseFiles(mPath) == before;
    }

    bool readCopy(const DatabaseFiles& before, std::string& problem) {
        const TemporaryFolder folder(std::filesystem::temp_directory_path() / "sdconfig-");
        if (folder.path().empty()) {
            problem = std::string(" can't be copied: ") + std::strerror(errno);
            return true;
        }
        const std::string copy = folder.path() + "/copy";
        std::error_code failure;
        for (const char* part : {"", "-wal"})
            if (!failure) std::filesystem::copy_file(mPath + part, copy + part, failure);
        if (DatabaseFiles(mPath) != before) return false;
        if (failure) {
            problem = " can't be copied: " + failure.message();
            return true;
        }
        Reading reading(copy, SQLITE_OPEN_READWRITE, nullptr);
        problem = problemOf(reading);
        return true;
    }

    std::string problemOf(Reading& reading) {
        reading.hand(mUse, mStop);
        if (reading.ok()) return "";
        if (reading.code() == SQLITE_NOTADB) return " is not a database";
        if (reading.code() == SQLITE_BUSY) return " is locked by another process";
        return " can't be read: " + reading.error();
    }

    const std::string& mPath;
    const DatabaseUse& mUse;
    Stop mStop;
    bool mLogMode = false;
};

}  // namespace

std::string readUntouched(const std::string& path, const DatabaseUse& use, const Stop& stop) {
    return UntouchedDatabase(path, use, stop).read();
}

}  // namespace apps
