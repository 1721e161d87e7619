// The SQLite layer, observed in the file, in the log and by other connections.
#include <gtest/gtest.h>

#include <chrono>

#include "sql/SQLiteDatabase.h"
#include "sql/SQLiteStatement.h"
#include "sql/SQLiteTable.h"
#include "sql/SQLiteTransaction.h"
#include "sql/SQLiteWitness.h"
#include "tests/support/support.h"

namespace sd::data {
namespace {

using Rows = std::vector<std::vector<std::string>>;

class SqlTest : public testing::Test {
protected:
    test::TempDir mFolder;
    const std::string mPath = mFolder / "a.db";
    test::LogCapture mLog;
};

TEST_F(SqlTest, OpensDurableSharedAndPatient) {
    SQLiteDatabase db(mPath);
    ASSERT_TRUE(db.executeCommand("CREATE TABLE t(a)"));
    EXPECT_EQ(test::query(mPath, "PRAGMA journal_mode"), Rows{{"wal"}});
    ASSERT_EQ(mLog.count("sql/SQLiteDatabase open(", 5), 1);
    EXPECT_EQ(mLog.lines()[0].tag, "DMS-SQLiteDatabase");
    EXPECT_TRUE(mLog.has("set busy timeout to 5000", 5));
    for (const auto& [pragma, expected] :
         {std::pair{"PRAGMA synchronous", 2}, {"PRAGMA cache_size", -5}, {"PRAGMA busy_timeout", 5000}}) {
        SQLiteStatement statement(db, pragma);
        ASSERT_EQ(statement.prepare(), 0);
        ASSERT_EQ(statement.step(), 100);
        EXPECT_EQ(statement.getColumnInt(0), expected) << pragma;
        statement.finalize();
    }
    EXPECT_TRUE(db.isWritable());
    for (int i = 0; i < 2; ++i) EXPECT_EQ(db.close(), 0);
    EXPECT_FALSE(db.isWritable() || db.executeCommand("CREATE TABLE u(a)"));
    const TableField column{0, "a", 1, "", "", 0};
    EXPECT_FALSE(SQLiteTable(db, "u").create(&column, 1));
    EXPECT_EQ(mLog.count("create u failed.", 7), 1);
    EXPECT_NE(SQLiteStatement(db, "SELECT 1").prepare(), 0);
    EXPECT_TRUE(mLog.has("sqlite3_prepare_v2 failed: no handle", 7));
}

// Writes a row of its own beside each commit, and keeps what came of it.
struct Note : SQLiteWitness {
    void beforeCommit(SQLiteDatabase& db) override {
        EXPECT_TRUE(db.executeCommand("INSERT INTO n VALUES('" + std::to_string(told.size()) + "')"));
    }
    void afterCommit(bool isCommitted) override { told += isCommitted ? '+' : '-'; }
    std::string told;
};

TEST_F(SqlTest, AWitnessWritesInTheSameCommitOrNotAtAll) {
    SQLiteDatabase db(mPath);
    SQLiteTable table(db, "t");
    const TableField column{0, "a", 1, "", "", 0};
    ASSERT_TRUE(table.create(&column, 1) && db.executeCommand("CREATE TABLE n(a)"));
    const auto row = [&](const std::string& value) {
        TableRow fields;
        table.addFieldToRow(fields, 0, value);
        return fields;
    };
    const auto stored = [&] { return test::query(mPath, "SELECT a FROM t UNION ALL SELECT a FROM n"); };
    Note note;
    {
        const SQLiteWitnessed witnessed(note);
        SQLiteTransaction transaction(db);
        EXPECT_TRUE(table.insert(row("x")) && table.insert(row("y")) && note.told.empty());
        EXPECT_TRUE(transaction.commit());
        EXPECT_EQ(stored(), (Rows{{"x"}, {"y"}, {"0"}}));
        EXPECT_TRUE(table.remove(row("x"))) << "by itself";
        EXPECT_EQ(stored(), (Rows{{"y"}, {"0"}, {"1"}}));
        SQLiteTransaction abandoned(db);
        EXPECT_TRUE(table.remove(row("y")));
    }
    EXPECT_EQ(note.told, "++");
    EXPECT_TRUE(table.remove(row("y")));
    EXPECT_EQ(stored(), (Rows{{"0"}, {"1"}})) << "nobody is told any more";
}

TEST_F(SqlTest, WaitsFiveSecondsForAnotherWriterThenFails) {
    SQLiteDatabase db(mPath), other(mPath);
    ASSERT_TRUE(db.executeCommand("CREATE TABLE t(a)"));
    ASSERT_TRUE(other.executeCommand("BEGIN IMMEDIATE"));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(db.executeCommand("INSERT INTO t VALUES(1)"));
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(4500));
    EXPECT_LT(waited, std::chrono::milliseconds(9000));
    EXPECT_TRUE(mLog.has("sqlite3_step failed (5)\nQuery - INSERT INTO t VALUES(1)\nError - database is locked", 7));
    ASSERT_TRUE(other.executeCommand("COMMIT"));
    EXPECT_TRUE(db.executeCommand("INSERT INTO t VALUES(1)"));
}

TEST_F(SqlTest, RemovesNoMoreThanItWasToldAndTellsAFailure) {
    SQLiteDatabase db(mPath);
    SQLiteTable table(db, "t");
    const TableField columns[] = {{0, "id", 0, "PRIMARY KEY AUTOINCREMENT", "", 0}, {1, "key", 1, "", "", 0}};
    ASSERT_TRUE(table.create(columns, 2));
    TableRow row;
    table.addFieldToRow(row, 1, "a");
    ASSERT_TRUE(table.insert(row));
    EXPECT_FALSE(table.remove({})) << "it would empty the table";
    test::query(mPath, "CREATE TRIGGER no BEFORE DELETE ON t BEGIN SELECT RAISE(ABORT, 'not now'); END");
    EXPECT_FALSE(table.remove(row));
    EXPECT_TRUE(
        mLog.has("SQLiteTable::insert failed to execute statement /DELETE FROM t WHERE key=? COLLATE NOCASE/ "
                 "error /not now/",
                 7));
    std::string sql;
    table.genInsertStatement({{0, std::string(300, 'c'), 1, "", "", 0}}, sql);
    EXPECT_EQ(sql, "INSERT OR REPLACE INTO t (" + std::string(255, 'c') + ") VALUES(?)");
    EXPECT_FALSE(db.executeCommand("SELECT 1"));
    EXPECT_TRUE(mLog.has("executeCommand failed: step failed", 7));
    EXPECT_EQ(db.close(), 0) << "a failed command left its statement open";
}

}  // namespace
}  // namespace sd::data
