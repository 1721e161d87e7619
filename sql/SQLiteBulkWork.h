// A connection that reads and writes many rows at once, for a moment.
#pragma once

namespace sd::data {

class SQLiteDatabase;

// While it lives, the connection keeps the pages that a transaction changes in memory, where each would otherwise be
// written to the log again with every row of it, and moves the log to the database in small pieces, so that no commit
// takes long. Commits are as durable as ever. Stands around the transaction; one thread at a time; nothing throws.
class SQLiteBulkWork {
public:
    // `db` has to outlive it.
    explicit SQLiteBulkWork(SQLiteDatabase& db);
    ~SQLiteBulkWork();
    SQLiteBulkWork(const SQLiteBulkWork&) = delete;
    SQLiteBulkWork& operator=(const SQLiteBulkWork&) = delete;

private:
    SQLiteDatabase& mDb;
};

}  // namespace sd::data
