// One prepared statement.
#pragma once

#include <string>

struct sqlite3_stmt;

namespace sd::data {

class SQLiteDatabase;

// constructed --prepare--> prepared --step...--> --finalize--> as constructed
// Bind parameters count from 1, result columns from 0. One thread at a time. Where SQLite gets no memory all but
// finalize and reset raise std::bad_alloc: what can't be read for want of memory must not pass for what is not there.
class SQLiteStatement {
public:
    // Keeps a reference to `db`, which has to outlive the statement. Prepares nothing.
    SQLiteStatement(SQLiteDatabase& db, const std::string& sql);

    // Does not finalize: who prepared a statement finalizes it, by finalize or executeCommand.
    ~SQLiteStatement() = default;
    SQLiteStatement(const SQLiteStatement&) = delete;
    SQLiteStatement& operator=(const SQLiteStatement&) = delete;

    // 0 on success. A text of more than one statement fails.
    int prepare();

    static constexpr int kRow = 100;
    static constexpr int kDone = 101;
    // SQLite's result (kRow: a row is ready; kDone; else an error), or 0 when nothing is prepared.
    int step();

    void finalize();

    // Makes a prepared statement ready to be bound and stepped again.
    void reset();

    // How many rows the statement that ran last on the connection has changed.
    int changes() const;

    // Runs a statement that yields no rows: prepares it if need be, steps once, finalizes. A row is a failure.
    bool executeCommand();

    // SQLite's result. The whole string is bound, zero bytes included, and copied.
    int bindText(int index, const std::string& value);
    int bindInt(int index, int value);

    // 0 and "" when nothing is prepared or the column is NULL. Text ends at its first zero byte.
    int getColumnInt(int column);
    std::string getColumnText(int column);

private:
    SQLiteDatabase& mDb;
    std::string mSql;
    sqlite3_stmt* mHandle;
};

// Finalizes the statement in the end, whatever ends its use: one that is left open keeps its lock.
class SQLiteFinalizer {
public:
    explicit SQLiteFinalizer(SQLiteStatement& statement) : mStatement(statement) {}
    ~SQLiteFinalizer() { mStatement.finalize(); }
    SQLiteFinalizer(const SQLiteFinalizer&) = delete;
    SQLiteFinalizer& operator=(const SQLiteFinalizer&) = delete;

private:
    SQLiteStatement& mStatement;
};

}  // namespace sd::data
