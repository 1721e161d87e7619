#include "src/sdconfig_key_value_table.h"

#include <cstdlib>

#include "sql/SQLiteStatement.h"
#include "sql/SQLiteTransaction.h"

namespace sd::key_value {

namespace {

enum Column { kId, kKey, kValue };

const data::TableField kColumns[] = {
    {kId, "id", 0, "PRIMARY KEY AUTOINCREMENT", "", 0},
    {kKey, "key", 1, "COLLATE NOCASE UNIQUE ON CONFLICT FAIL", "", 0},
    {kValue, "value", 1, "", "", 0},
};

data::TableRow field(data::SQLiteTable& table, Column column, const std::string& value = "") {
    data::TableRow row;
    table.addFieldToRow(row, column, value);
    return row;
}

}  // namespace

bool create(data::SQLiteTable& table) {
    return table.create(kColumns, static_cast<int>(std::size(kColumns)));
}

std::string get(data::SQLiteTable& table, const std::string& key) {
    std::vector<data::TableRow> rows;
    if (!table.select(field(table, kKey, key), field(table, kValue), rows) || rows.empty()) return "";
    return std::move(rows.front().front().text);
}

bool set(data::SQLiteTable& table, const std::string& key, const std::string& value) {
    data::TableRow row = field(table, kKey, key);
    table.addFieldToRow(row, kValue, value);
    return table.insert(row);
}

bool remove(data::SQLiteTable& table, const std::string& key) {
    return table.remove(field(table, kKey, key));
}

bool replace(data::SQLiteTable& table, const std::string& key, const std::string& value,
             const std::function<void()>& removeOld) {
    data::SQLiteTransaction transaction(table.database());
    if (!transaction.isActive()) return false;
    removeOld();
    return transaction.isActive() && set(table, key, value) && transaction.commit();
}

bool keys(data::SQLiteTable& table, std::vector<std::string>& result) {
    std::vector<data::TableRow> rows;
    if (!table.select({}, field(table, kKey), rows)) return false;
    for (data::TableRow& row : rows) result.push_back(std::move(row.front().text));
    return true;
}

bool hasKey(data::SQLiteTable& table, const std::string& key) {
    std::vector<data::TableRow> rows;
    return table.select(field(table, kKey, key), field(table, kKey), rows) && !rows.empty() &&
           rows.front().front().text == key;
}

bool isEmpty(data::SQLiteTable& table) {
    return !table.hasRow(field(table, kKey));
}

bool walk(data::SQLiteTable& table, const std::string& afterId, const std::function<bool(StoredRow&&)>& take) {
    data::SQLiteStatement statement(table.database(),
                                    "SELECT id,key,value FROM " + table.name() + " WHERE id>? ORDER BY id");
    if (statement.prepare() != 0) return false;
    const data::SQLiteFinalizer finalizer(statement);
    statement.bindText(1, afterId);
    int result = data::SQLiteStatement::kRow;
    bool more = true;
    while (more && (result = statement.step()) == data::SQLiteStatement::kRow)
        more = take({statement.getColumnText(0), statement.getColumnText(1), statement.getColumnText(2)});
    return !more || result == data::SQLiteStatement::kDone;
}

std::int64_t lastId(data::SQLiteTable& table) {
    data::SQLiteStatement statement(table.database(), "SELECT max(id) FROM " + table.name());
    if (statement.prepare() != 0) return 0;
    const data::SQLiteFinalizer finalizer(statement);
    const std::string last = statement.step() == data::SQLiteStatement::kRow ? statement.getColumnText(0) : "";
    return std::strtoll(last.c_str(), nullptr, 10);
}

bool replaceValues(data::SQLiteTable& table, std::vector<Replacement>& replacements) {
    if (!table.isInPlace()) return false;
    data::SQLiteTransaction transaction(table.database());
    if (!transaction.isActive()) return false;
    data::SQLiteStatement update(table.database(), "UPDATE " + table.name() + " SET value=? WHERE id=? AND value=?");
    const data::SQLiteFinalizer finalizer(update);
    bool stored = update.prepare() == 0;
    for (auto one = replacements.begin(); stored && one != replacements.end(); ++one) {
        update.bindText(1, one->value);
        update.bindText(2, one->read.id);
        update.bindText(3, one->read.value);
        stored = update.step() == data::SQLiteStatement::kDone;
        one->done = stored && update.changes() == 1;
        update.reset();
    }
    return stored && transaction.commit();
}

std::size_t count(data::SQLiteTable& table) {
    std::vector<data::TableRow> rows;
    return table.select({}, field(table, kKey), rows) ? rows.size() : 0;
}

}  // namespace sd::key_value
