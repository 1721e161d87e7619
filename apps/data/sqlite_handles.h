// SQLite's handles, closed with their objects, and what is read through them.
#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <memory>
#include <string>

namespace apps {

struct CloseDatabase {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

struct FinalizeStatement {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// The bytes of a text or a blob; "" for NULL.
inline std::string columnBytes(sqlite3_stmt* statement, int index) {
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, index));
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, index));
    return bytes ? std::string(bytes, size) : "";
}

inline bool isText(sqlite3_stmt* statement, int index) {
    return sqlite3_column_type(statement, index) == SQLITE_TEXT;
}

}  // namespace apps
