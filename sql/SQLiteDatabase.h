// One connection to one SQLite file, tuned for several processes that write the same file.
#pragma once

#include <string>

struct sqlite3;

namespace sd::data {

// Commits are durable (synchronous FULL, write-ahead log) and readers in other processes go on during a write. A file
// that another process has locked is waited for, 5000 ms in all; then the statement fails.
// One thread at a time. Nothing throws: a failure is a return value and a level-7 log line.
// Users of libsdconfig.so meet this class and SQLiteTable only as parts of the stores; their operations are not
// exported.
class SQLiteDatabase {
public:
    // Opens the file, creating it if it is missing. When that fails the object stays usable: every command on it fails.
    // path: UTF-8.
    explicit SQLiteDatabase(const std::string& path);
    ~SQLiteDatabase();
    SQLiteDatabase(const SQLiteDatabase&) = delete;
    SQLiteDatabase& operator=(const SQLiteDatabase&) = delete;

    // The constructor's work. An open connection is not closed first.
    void open(const std::string& path);

    // Runs one statement that yields no rows. False when the connection is not open, or the statement fails or yields
    // a row.
    bool executeCommand(const std::string& sql);

    // Closes the connection and returns SQLite's result, 0 when there was nothing to close.
    int close();

    // Whether the path leads to the open file no more: it was moved, removed or replaced, or its folder was. What is
    // written to it then is gone when the path is opened again.
    bool isDetached() const;

    // Whether this connection can write: where descriptors run out SQLite opens a file, or its log, for reading alone,
    // and leaves it so. Takes the write lock for that, and gives it back; writes nothing.
    bool isWritable();

    struct Tuning {
        int cacheKiB;  // of pages in memory
        int logPages;  // from which on a commit moves the log to the database; fewer, and more commits take a little
                       // longer
    };
    // A connection's memory matters more here than re-reading a page. The log is as SQLite has it.
    static constexpr Tuning kUsual{5, 1000};
    void tune(const Tuning& tuning);

    // The connection for the statements on it; null when it is not open.
    sqlite3* handle() const { return mHandle; }

private:
    sqlite3* mHandle;
    int mResult;  // of the last connection call
};

}  // namespace sd::data
