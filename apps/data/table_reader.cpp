#include "apps/data/table_reader.h"

#include "apps/data/sqlite_handles.h"
#include "apps/data/untouched_database.h"

namespace apps {

namespace {

// Reads tables over a connection, up to the first call that fails.
class Reading {
public:
    explicit Reading(sqlite3* db) : mDatabase(db) {}

    int code() const { return mCode; }

    void read(const std::string& table, const std::optional<std::string>& key, Tables& into) {
        if (!holds(table)) return;
        std::vector<Row>& rows = into.rows[table];
        const std::string condition = key ? " WHERE key = ?1 COLLATE NOCASE" : "";
        const Statement statement = prepare("SELECT key, value FROM \"" + table + "\"" + condition + " ORDER BY id");
        if (statement && key) bind(statement.get(), *key);
        while (step(statement.get()))
            rows.push_back(
                {columnBytes(statement.get(), 0), columnBytes(statement.get(), 1), isText(statement.get(), 0)});
    }

private:
    bool holds(const std::string& table) {
        const Statement statement = prepare("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?1");
        if (statement) bind(statement.get(), table);
        return step(statement.get());
    }

    Statement prepare(const std::string& sql) {
        sqlite3_stmt* statement = nullptr;
        if (mCode == SQLITE_OK) mCode = sqlite3_prepare_v2(mDatabase, sql.c_str(), -1, &statement, nullptr);
        return Statement(statement);
    }

    static void bind(sqlite3_stmt* statement, const std::string& text) {
        sqlite3_bind_text(statement, 1, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    }

    // Whether there is another row. At the end and on a failure there is none; a failure stays in the code.
    bool step(sqlite3_stmt* statement) {
        if (mCode != SQLITE_OK || !statement) return false;
        const int result = sqlite3_step(statement);
        if (result != SQLITE_ROW && result != SQLITE_DONE) mCode = result;
        return result == SQLITE_ROW;
    }

    sqlite3* const mDatabase;
    int mCode = SQLITE_OK;
};

}  // namespace

Tables readTables(const std::string& database, const std::vector<std::string>& tables,
                  const std::optional<std::string>& key) {
    Tables result;
    result.problem = readUntouched(database, [&](sqlite3* db) {
        Reading reading(db);
        result.rows.clear();
        for (const std::string& table : tables) reading.read(table, key, result);
        return reading.code();
    });
    if (!result.problem.empty()) result.rows.clear();
    return result;
}

}  // namespace apps
