// One transaction that writes.
#pragma once

#include "sql/SQLiteStatement.h"

namespace sd::data {

class SQLiteDatabase;

// What it holds is stored as a whole, or not at all: whatever ends it before commit() has succeeded, an error, an
// exception, the process, leaves the database as it was. One thread at a time. Beginning and committing raise
// std::bad_alloc where there is no memory for it.
class SQLiteTransaction {
public:
    // Takes the database's write lock, for which it waits as any statement does. `db` has to outlive the transaction.
    explicit SQLiteTransaction(SQLiteDatabase& db);
    // Rolls back what was not committed.
    ~SQLiteTransaction();
    SQLiteTransaction(const SQLiteTransaction&) = delete;
    SQLiteTransaction& operator=(const SQLiteTransaction&) = delete;

    // False where it could not begin, and where SQLite itself ended it, as it does when the disk fails: a statement
    // would then be a commit of its own.
    bool isActive() const;

    // One durable commit, with what this thread's witness writes (SQLiteWitness). False, with nothing stored as far as
    // this process sees, when it fails; after a sync that failed the next start may find it all the same.
    bool commit();

private:
    SQLiteDatabase& mDb;
    SQLiteStatement mRollback;
    const SQLiteFinalizer mFinalizer;  // also where it could not begin
    const bool mBegun;
};

}  // namespace sd::data
