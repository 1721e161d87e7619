#include "sql/SQLiteTable.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <optional>

#include "platform/velmarlog/log_line.h"
#include "sql/SQLiteDatabase.h"
#include "sql/SQLiteStatement.h"
#include "sql/SQLiteTransaction.h"
#include "sql/SQLiteWitness.h"
#include "sql/sqlite_api.h"

namespace sd::data {

namespace {

constexpr char kTag[] = "DMS-SQLiteTable";
constexpr char kSource[] = "sql/SQLiteTable";

// The one type that reading takes for text; definitions and writing take every type but 0 for it.
constexpr int kText = 1;

// A piece of a statement, cut at 255 characters.
__attribute__((format(printf, 1, 2))) std::string fragment(const char* format, ...) {
    char buffer[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    return buffer;
}

std::string joinNames(const TableRow& row) {
    std::string names;
    for (size_t i = 0; i < row.size(); ++i) {
        if (i > 0) names += ',';
        names += fragment("%s", row[i].name.c_str());
    }
    return names;
}

}  // namespace

SQLiteTable::SQLiteTable(SQLiteDatabase& db, const std::string& name) : mDb(db), mName(name) {}

SQLiteTable::~SQLiteTable() = default;

bool SQLiteTable::create(const TableField* fields, int count) {
    if (count < 1) return false;
    mFields.assign(fields, fields + count);
    std::string sql;
    genCreateStatement(sql);
    const bool created = mDb.executeCommand(sql);
    if (!created) LOG(7, AT "create %s failed.", HERE, mName.c_str());
    return created;
}

void SQLiteTable::addFieldToRow(TableRow& row, int index, const std::string& value) {
    const auto found =
        std::find_if(mFields.begin(), mFields.end(), [index](const TableField& field) { return field.index == index; });
    if (found == mFields.end()) return;
    row.push_back({found->index, found->name, found->type, "", value, 0});
}

bool SQLiteTable::insert(const TableRow& row) {
    if (row.empty()) return false;
    std::string sql;
    genInsertStatement(row, sql);
    return executeStatement(sql, row);
}

bool SQLiteTable::remove(const TableRow& row) {
    if (row.empty()) return false;
    std::string sql;
    genRemoveStatement(row, sql);
    return executeStatement(sql, row);
}

bool SQLiteTable::select(const TableRow& where, const TableRow& columns, std::vector<TableRow>& results) {
    if (columns.empty()) return false;
    std::string sql;
    genSelectStatement(where, columns, sql);
    SQLiteStatement statement(mDb, sql);
    if (statement.prepare() != 0) return false;
    const SQLiteFinalizer finalizer(statement);

    for (size_t i = 0; i < where.size(); ++i) {
        const int parameter = static_cast<int>(i) + 1;
        if (where[i].type == kText)
            statement.bindText(parameter, where[i].text);
        else
            statement.bindInt(parameter, where[i].integer);
    }
    while (statement.step() == SQLITE_ROW) {
        TableRow row(columns.size());
        for (size_t i = 0; i < columns.size(); ++i) {
            const int column = static_cast<int>(i);
            if (columns[i].type == kText)
                row[i].text = statement.getColumnText(column);
            else
                row[i].integer = statement.getColumnInt(column);
        }
        results.push_back(std::move(row));
    }
    return true;
}

bool SQLiteTable::hasRow(const TableRow& columns) {
    if (columns.empty()) return false;
    std::string sql;
    genSelectStatement({}, columns, sql);
    SQLiteStatement statement(mDb, sql);
    if (statement.prepare() != 0) return false;
    const SQLiteFinalizer finalizer(statement);
    return statement.step() == SQLITE_ROW;
}

void SQLiteTable::genCreateStatement(std::string& out) {
    if (mFields.empty()) return;
    out = fragment("CREATE TABLE IF NOT EXISTS %s(", mName.c_str());
    for (size_t i = 0; i < mFields.size(); ++i) {
        const TableField& field = mFields[i];
        if (field.index != static_cast<int>(i)) {
            LOG(7, AT "index of %s fields is wrong.", HERE, mName.c_str());
            break;
        }
        out += fragment("%s %s %s", field.name.c_str(), field.type != 0 ? "TEXT" : "INTEGER", field.constraint.c_str());
        if (i + 1 < mFields.size()) out += ',';
    }
    out += ')';
}

void SQLiteTable::genInsertStatement(const TableRow& row, std::string& out) {
    out = fragment("INSERT OR REPLACE INTO %s (", mName.c_str());
    out += joinNames(row);
    out += ") VALUES(";
    for (size_t i = 0; i < row.size(); ++i) out += i == 0 ? "?" : ",?";
    out += ')';
}

void SQLiteTable::genRemoveStatement(const TableRow& row, std::string& out) {
    if (row.empty()) return;
    out = fragment("DELETE FROM %s WHERE %s=? COLLATE NOCASE", mName.c_str(), row.front().name.c_str());
}

void SQLiteTable::genSelectStatement(const TableRow& where, const TableRow& columns, std::string& out) {
    out = "SELECT " + joinNames(columns);
    out += where.empty() ? fragment(" FROM %s", mName.c_str())
                         : fragment(" FROM %s WHERE %s=? COLLATE NOCASE", mName.c_str(), where.front().name.c_str());
}

bool SQLiteTable::isInPlace() const {
    if (!mDb.isDetached()) return true;
    LOG(7, AT "the database file of %s was moved, removed or replaced: a change would be lost at the next start", HERE,
        mName.c_str());
    return false;
}

bool SQLiteTable::executeStatement(const std::string& sql, const TableRow& row) {
    if (!isInPlace()) return false;
    std::optional<SQLiteTransaction> transaction;
    if (SQLiteWitnessed::current() && mDb.handle() && sqlite().getAutocommit(mDb.handle()) != 0)
        transaction.emplace(mDb);
    if (transaction && !transaction->isActive()) return false;
    SQLiteStatement statement(mDb, sql);
    if (statement.prepare() != 0) return false;
    const SQLiteFinalizer finalizer(statement);
    for (size_t i = 0; i < row.size(); ++i) {
        const int parameter = static_cast<int>(i) + 1;
        if (row[i].type != 0)
            statement.bindText(parameter, row[i].text);
        else
            statement.bindInt(parameter, row[i].integer);
    }
    const bool done = statement.executeCommand();
    if (!done)
        LOG(7, AT "SQLiteTable::insert failed to execute statement /%s/ error /%s/", HERE, sql.c_str(),
            sqlite().errmsg(mDb.handle()));
    return done && (!transaction || transaction->commit());
}

}  // namespace sd::data
