// What this room takes from SQLite, which is loaded with the first database.
#pragma once

#include <sqlite3.h>

#include "base/shared_library.h"

namespace sd::data {

struct SqliteApi {
    const SharedLibrary library{SQLITE_SONAME};
    LOADED_AS(open, library, sqlite3_open);
    LOADED_AS(close, library, sqlite3_close);
    LOADED_AS(busyHandler, library, sqlite3_busy_handler);
    LOADED_AS(busyTimeout, library, sqlite3_busy_timeout);
    LOADED_AS(fileControl, library, sqlite3_file_control);
    LOADED_AS(dbReadonly, library, sqlite3_db_readonly);
    LOADED_AS(exec, library, sqlite3_exec);
    LOADED_AS(getAutocommit, library, sqlite3_get_autocommit);
    LOADED_AS(errcode, library, sqlite3_errcode);
    LOADED_AS(errmsg, library, sqlite3_errmsg);
    LOADED_AS(prepare, library, sqlite3_prepare_v2);
    LOADED_AS(step, library, sqlite3_step);
    LOADED_AS(reset, library, sqlite3_reset);
    LOADED_AS(finalize, library, sqlite3_finalize);
    LOADED_AS(changes, library, sqlite3_changes);
    LOADED_AS(bindText, library, sqlite3_bind_text);
    LOADED_AS(bindInt, library, sqlite3_bind_int);
    LOADED_AS(columnText, library, sqlite3_column_text);
    LOADED_AS(columnInt, library, sqlite3_column_int);
};

// Throws LibraryFailure where SQLite can't be loaded; never once a database was open.
inline const SqliteApi& sqlite() {
    static const SqliteApi sApi;
    return sApi;
}

}  // namespace sd::data
