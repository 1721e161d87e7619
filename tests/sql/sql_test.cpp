// The SQLite layer, observed in the file, in the log and by other connections.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "sql/SQLiteDatabase.h"
#include "sql/SQLiteStatement.h"
#include "sql/SQLiteTable.h"
#include "tests/support/support.h"

namespace sd::data {
namespace {

using Rows = std::vector<std::vector<std::string>>;

const TableField kColumns[] = {{0, "id", 0, "PRIMARY KEY AUTOINCREMENT", "", 0},
                               {1, "key", 1, "COLLATE NOCASE UNIQUE ON CONFLICT FAIL", "", 0},
                               {2, "value", 1, "", "", 0}};

class SqlTest : public testing::Test {
protected:
    TableRow row(SQLiteTable& table, const std::string& key, const std::string& value) {
        TableRow fields;
        table.addFieldToRow(fields, 1, key);
        table.addFieldToRow(fields, 2, value);
        return fields;
    }

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
    EXPECT_EQ(db.close(), 0);
    EXPECT_EQ(db.close(), 0);
    EXPECT_FALSE(db.executeCommand("CREATE TABLE u(a)"));
}

TEST_F(SqlTest, FailedOpenLeavesASafeObject) {
    const test::DeliberateLeak droppedHandle;
    SQLiteDatabase db(mFolder / "missing/a.db");
    EXPECT_EQ(db.handle(), nullptr);
    EXPECT_EQ(mLog.count("failed to open sqlite3 db:" + mFolder.path() + "/missing/a.db, error code = 14", 7), 1);
    EXPECT_EQ(mLog.count("error msg is No such file or directory", 7), 1);
    EXPECT_FALSE(db.executeCommand("CREATE TABLE t(a)"));
    EXPECT_EQ(SQLiteStatement(db, "SELECT 1").prepare(), 1);
    EXPECT_TRUE(mLog.has("sqlite3_prepare_v2 failed: no handle", 7));
    EXPECT_EQ(db.close(), 0);
}

TEST_F(SqlTest, StatementsRefuseWhatIsNotOneCommand) {
    const test::DeliberateLeak statementKeptBySecondCommand;
    SQLiteDatabase db(mPath);
    EXPECT_FALSE(db.executeCommand("CREATE TABLE a(x); CREATE TABLE b(x)"));
    EXPECT_TRUE(mLog.has("sqlite3_prepare_v2 failed: tail: CREATE TABLE b(x)", 7));
    EXPECT_EQ(test::query(mPath, "SELECT name FROM sqlite_master"), Rows{});

    EXPECT_FALSE(db.executeCommand("SELECT 1"));
    EXPECT_TRUE(mLog.has("executeCommand failed: step failed", 7));
    EXPECT_FALSE(db.executeCommand("nonsense"));
    EXPECT_TRUE(mLog.has("sqlite3_prepare_v2 failed (1)\nnonsense\nnear \"nonsense\": syntax error", 7));
    EXPECT_TRUE(mLog.has("executeCommand failed: prepare failed", 7));

    SQLiteStatement unprepared(db, "SELECT 1");
    EXPECT_EQ(unprepared.step(), 0);
    EXPECT_EQ(unprepared.getColumnInt(0), 0);
    EXPECT_EQ(unprepared.getColumnText(0), "");
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

TEST_F(SqlTest, TablesKeepOneRowAKeyWhateverItsCase) {
    SQLiteDatabase db(mPath);
    SQLiteTable table(db, "config");
    ASSERT_TRUE(table.create(kColumns, 3));
    EXPECT_EQ(test::query(mPath, "SELECT sql FROM sqlite_master WHERE name='config'"),
              Rows{{"CREATE TABLE config(id INTEGER PRIMARY KEY AUTOINCREMENT,key TEXT COLLATE NOCASE UNIQUE ON "
                    "CONFLICT FAIL,value TEXT )"}});

    ASSERT_TRUE(table.insert(row(table, "Abc", "1")));
    ASSERT_TRUE(table.insert(row(table, "ABC", "x' OR 1; --")));
    EXPECT_EQ(test::query(mPath, "SELECT key, value, typeof(value) FROM config"),
              (Rows{{"ABC", "x' OR 1; --", "text"}}));
    ASSERT_TRUE(table.insert(row(table, "other", "2")));

    TableRow where, columns;
    table.addFieldToRow(where, 1, "aBc");
    table.addFieldToRow(columns, 2, "");
    table.addFieldToRow(columns, 99, "no such column");
    std::vector<TableRow> results(1);
    ASSERT_TRUE(table.select(where, columns, results));
    ASSERT_EQ(results.size(), 2u) << "rows are appended";
    ASSERT_EQ(results[1].size(), 1u);
    EXPECT_EQ(results[1][0].text, "x' OR 1; --");
    results.clear();
    EXPECT_TRUE(table.select({}, columns, results));
    EXPECT_EQ(results.size(), 2u);
    EXPECT_FALSE(table.select(where, {}, results));

    EXPECT_TRUE(table.remove(where));
    EXPECT_EQ(test::query(mPath, "SELECT key FROM config"), Rows{{"other"}});
    EXPECT_FALSE(table.remove({}));
    EXPECT_FALSE(table.insert({}));
}

TEST_F(SqlTest, BadDefinitionsAndFailuresAreTold) {
    SQLiteDatabase db(mPath);
    SQLiteTable table(db, "t");
    EXPECT_FALSE(table.create(kColumns, 0));
    const TableField disordered[] = {kColumns[1], kColumns[0]};
    EXPECT_FALSE(table.create(disordered, 2));
    EXPECT_TRUE(mLog.has("index of t fields is wrong.", 7));
    EXPECT_TRUE(mLog.has("create t failed.", 7));

    ASSERT_TRUE(table.create(kColumns, 3));
    test::query(mPath, "CREATE TRIGGER no BEFORE DELETE ON t BEGIN SELECT RAISE(ABORT, 'not now'); END");
    ASSERT_TRUE(table.insert(row(table, "a", "1")));
    EXPECT_FALSE(table.remove(row(table, "a", "")));
    EXPECT_TRUE(
        mLog.has("SQLiteTable::insert failed to execute statement /DELETE FROM t WHERE key=? COLLATE NOCASE/ "
                 "error /not now/",
                 7));

    const std::string longName(300, 'n');
    std::string sql;
    SQLiteTable(db, longName).genSelectStatement({}, row(table, "", ""), sql);
    EXPECT_EQ(sql, "SELECT key,value" + (" FROM " + longName).substr(0, 255));
}

}  // namespace
}  // namespace sd::data
