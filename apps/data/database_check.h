// Whether a database is sound and complete: what the service asks before it starts, and a person at any time.
#pragma once

#include <sqlite3.h>

#include <optional>
#include <string>
#include <vector>

#include "apps/data/data_files.h"
#include "apps/data/finding.h"
#include "platform/sdsecurity/sdsecurity.h"

namespace apps {

// One of the database's files that is there and is no regular file. SQLite would wait at a pipe for ever.
std::optional<Finding> irregularFile(const std::string& path);

// What only shows before SQLite opens the file: it would delete or cut a log that it makes nothing of. Changes nothing.
std::optional<Finding> logDamage(const std::string& path);

// The rest takes a connection. path: as it is to be told.

// A trigger, a view, a generated column or the like, which would run while the database is read or served: it was made
// by somebody else than a service. The text of a table is what tells; blanks and quotation marks don't count.
std::optional<Finding> strangeObject(sqlite3* db, const std::string& path);

// SQLite reads on over much damage: an index that names another row would answer one key with another's value.
std::optional<Finding> integrityDamage(sqlite3* db, const std::string& path);

// Whether the statement yields a row. A failure shows in sqlite3_errcode.
bool yieldsRow(sqlite3* db, const std::string& sql);
bool hasTable(sqlite3* db, const std::string& table);

// Whether the database, of a file that was there before, was emptied. One of an earlier version lacks the table, too.
bool isEmptied(sqlite3* db, const DatabaseLayout& layout);

// The version and the tables.
std::vector<Finding> layoutFindings(sqlite3* db, const DatabaseLayout& layout, const std::string& path);

// Why the key ring, which the security layer knows, doesn't serve a folder that holds sealed rows, or none.
// status: how it was found, where it was looked at already. One that is locked is none.
std::optional<Finding> ringFinding(const std::string& folder, bool sealedRows);
std::optional<Finding> ringFinding(const std::string& folder, bool sealedRows,
                                   const sd::SDSecurity::KeyRingStatus& status);

// A ring that is there and sound, as far as can be told, and that nothing opens now.
std::optional<Finding> lockedRing(const std::string& folder, const sd::SDSecurity::KeyRingStatus& status);
inline constexpr char kOpenRing[] =
    "unlock the login keyring, or open it by its passphrase or recovery code: sdconfig key unlock, sdconfig key "
    "recover";

// Whether the ring that was found is the folder's own, and not one that was handed over.
bool isRingOf(const std::string& folder, const sd::SDSecurity::KeyRingStatus& status);

// Whether the key that seals wants to be replaced; a service starts all the same.
std::optional<Finding> keyUseFinding(const std::string& folder);

}  // namespace apps
